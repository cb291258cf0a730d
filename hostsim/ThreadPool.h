// A small persistent pool of worker threads for the host's iterate calls.
#ifndef VT_HOSTSIM_THREADPOOL_H
#define VT_HOSTSIM_THREADPOOL_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace hostsim {

class ThreadPool {
 public:
  // `workers` threads besides the caller of Run (0 is allowed: Run then works alone).
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

  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::mutex runMutex_;  // one Run at a time per pool
};

}  // namespace hostsim

#endif
