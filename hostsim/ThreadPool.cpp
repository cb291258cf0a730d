#include "hostsim/ThreadPool.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>

namespace hostsim {

namespace {
thread_local bool on_worker = false;
std::atomic<int> thread_starts_left{-1};  // FailThreadStartsAfter's count; -1: no limit

struct WorkerFlag {
  bool previous;
  WorkerFlag() : previous(on_worker) { on_worker = true; }
  ~WorkerFlag() { on_worker = previous; }
};
}  // namespace

std::thread StartThread(std::function<void()> body) {
  int left = thread_starts_left.load();
  while (left >= 0) {
    if (left == 0) throw std::system_error(EAGAIN, std::generic_category());
    if (thread_starts_left.compare_exchange_weak(left, left - 1)) break;
  }
  return std::thread(std::move(body));
}

void FailThreadStartsAfter(int n) { thread_starts_left.store(n < 0 ? -1 : n); }

ThreadPool::ThreadPool(int workers) {
  threads_.reserve(static_cast<size_t>(std::max(workers, 0)));
  try {
    for (int i = 0; i < workers; ++i) threads_.push_back(StartThread([this] { WorkerLoop(); }));
  } catch (...) {
    // The workers already started wait on this pool's members: they must end before those go.
    Stop();
    throw;
  }
}

ThreadPool::~ThreadPool() { Stop(); }

void ThreadPool::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
}

bool ThreadPool::OnWorker() { return on_worker; }

void ThreadPool::WorkerLoop() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (tasks_.empty()) return;  // stopping and nothing left
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

void ThreadPool::Run(int participants, const std::function<void()>& job) {
  if (on_worker || participants <= 1 || threads_.empty()) {
    WorkerFlag flag;
    job();
    return;
  }
  std::lock_guard<std::mutex> runLock(runMutex_);
  const int helpers = std::min(participants - 1, workers());

  std::mutex doneMutex;
  std::condition_variable doneCv;
  int remaining = helpers;
  std::exception_ptr firstException;

  auto runOne = [&] {
    WorkerFlag flag;
    try {
      job();
    } catch (...) {
      std::lock_guard<std::mutex> lock(doneMutex);
      if (!firstException) firstException = std::current_exception();
    }
  };
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < helpers; ++i) {
      tasks_.emplace_back([&] {
        runOne();
        std::lock_guard<std::mutex> doneLock(doneMutex);
        if (--remaining == 0) doneCv.notify_all();
      });
    }
  }
  wake_.notify_all();
  runOne();
  {
    std::unique_lock<std::mutex> lock(doneMutex);
    doneCv.wait(lock, [&] { return remaining == 0; });
  }
  if (firstException) std::rethrow_exception(firstException);
}

}  // namespace hostsim
