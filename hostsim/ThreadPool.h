// A small persistent pool of worker threads for the host's iterate calls.
#ifndef VT_HOSTSIM_THREADPOOL_H
#define VT_HOSTSIM_THREADPOOL_H

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace hostsim {

// Starts a thread running `body`. The host's threads and the tool's start here, so that a test
// can make thread creation fail as a process or thread limit does; throws std::system_error
// when the system refuses the thread.
std::thread StartThread(std::function<void()> body);
// Test seam: the next `n` StartThread calls succeed and every later one fails with EAGAIN
// ("Resource temporarily unavailable"), until this is called with -1 (the default: none fail).
void FailThreadStartsAfter(int n);

class ThreadPool {
 public:
  // `workers` threads besides the caller of Run (0 is allowed: Run then works alone). Throws
  // std::system_error when a thread cannot be started; those already started are stopped
  // first.
  explicit ThreadPool(int workers);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  int workers() const { return static_cast<int>(threads_.size()); }

  // Runs `job` on `participants` threads at once, the calling thread being one of them, and
  // returns when every run has finished. The job shares its work out itself (for iterate: an
  // atomic next-row counter). An exception leaving a run is rethrown here after the others
  // finished. Called from inside a job, it runs the job on the calling thread only.
  void Run(int participants, const std::function<void()>& job);

  // True on a thread of any pool while it runs a job.
  static bool OnWorker();

 private:
  void WorkerLoop();
  void Stop();  // ends and joins the workers

  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::mutex runMutex_;  // one Run at a time per pool
};

// Rows [begin, end) handed out from a shared counter in runs of consecutive rows, each run a
// share of the rows still left (guided scheduling): a thread works through one region of the
// frame, whose source rows stay in its own cache, and the runs shrink to single rows towards
// the end, so the threads finish together whatever each row costs.
struct GuidedRows {
  static constexpr int64_t kShareDivisor = 2;  // a claim takes 1 / (2 * threads) of the rest

  GuidedRows(int64_t begin, int64_t end, int threads) : next(begin), end(end), threads(threads) {}

  // Claims the next run [first, last); false when no rows are left.
  bool Claim(int64_t& first, int64_t& last) {
    first = next.load(std::memory_order_relaxed);
    for (;;) {
      if (first >= end) return false;
      const int64_t share = (end - first) / (kShareDivisor * threads);
      last = first + std::max<int64_t>(1, share);
      if (next.compare_exchange_weak(first, last, std::memory_order_relaxed)) return true;
    }
  }

  std::atomic<int64_t> next;
  const int64_t end;
  const int threads;
};

// The one place the host's per-row work is spread over threads. Calls row(y) once for every
// row of [begin, end) on up to `participants` threads at once, the caller being one of them;
// each thread runs its share inside perThread(work), which may set up thread-local state
// around work(). A row returning false stops every thread before its next row. Without a
// pool, on a thread that already runs a pool's job, or with one participant, the caller
// works alone. Returns how many threads ran at least one row.
template <class PerThread, class Row>
int ParallelRows(ThreadPool* pool, int participants, int64_t begin, int64_t end,
                 PerThread perThread, Row row) {
  GuidedRows rows(begin, end, std::max(participants, 1));
  std::atomic<bool> stop{false};
  std::atomic<int> threadsUsed{0};
  auto job = [&] {
    perThread([&] {
      bool ranRow = false;
      int64_t first = 0, last = 0;
      while (!stop.load(std::memory_order_relaxed) && rows.Claim(first, last)) {
        for (int64_t y = first; y < last && !stop.load(std::memory_order_relaxed); ++y) {
          ranRow = true;
          if (!row(y)) stop.store(true);
        }
      }
      if (ranRow) threadsUsed.fetch_add(1);
    });
  };
  if (pool == nullptr || ThreadPool::OnWorker() || participants <= 1) {
    job();
  } else {
    pool->Run(participants, job);
  }
  return threadsUsed.load();
}

}  // namespace hostsim

#endif
