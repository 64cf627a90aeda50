#include "orvexd/platform/worker_pool.h"

#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {
thread_local WorkerPool* tCurrentPool = nullptr;
// How many counted jobs the calling thread is inside of (a job may run another inline).
thread_local int tCountedDepth = 0;

// A worker that has had nothing to do for this long ends; the next job that finds no free
// worker makes a new one. This is thread housekeeping, not daemon logic, so it counts in real
// time.
constexpr auto kIdleThreadLifetime = std::chrono::seconds(10);
}  // namespace

struct WorkerPool::Impl {
  // Declared first so that they outlive the jobs and the io_context: abandoned jobs and handlers
  // release their work tokens while they are destroyed.
  std::mutex mutex;  // guards busy
  std::condition_variable idle;
  std::size_t busy = 0;

  // The workers and their jobs, guarded by `jobsMutex`. Workers are made when a job finds none
  // free, up to maxThreads, and end after kIdleThreadLifetime without a job.
  std::mutex jobsMutex;
  std::condition_variable jobReady;
  std::deque<Job> jobs;
  std::size_t maxThreads = 1;
  std::size_t threads = 0;  // alive
  std::size_t waiting = 0;  // waiting for a job
  std::size_t wakeups = 0;  // notified and not yet woken
  bool stopping = false;
  std::unordered_map<std::thread::id, std::thread> workers;
  std::vector<std::thread> ended;  // ended on their own, still to be joined

  // Descriptors and strands, served by a thread of their own made on first use: a pool that
  // never waits on a descriptor has no such thread.
  std::optional<asio::io_context> io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::once_flag ioStarted;
  std::thread ioThread;
};

WorkerPool::WorkerPool(std::size_t threads) : impl_(std::make_unique<Impl>()) {
  impl_->io.emplace();
  impl_->guard.emplace(asio::make_work_guard(*impl_->io));
  impl_->maxThreads = std::max<std::size_t>(threads, 1);
}

WorkerPool::~WorkerPool() {
  if (isPoolThread()) {
    std::fputs("a WorkerPool cannot be destroyed by one of its own jobs\n", stderr);
    std::abort();
  }
  std::unordered_map<std::thread::id, std::thread> workers;
  std::vector<std::thread> ended;
  {
    std::lock_guard lock(impl_->jobsMutex);
    impl_->stopping = true;
    workers.swap(impl_->workers);
    ended.swap(impl_->ended);
  }
  impl_->jobReady.notify_all();
  // Stopped before the workers are joined: a running job may wait for it.
  impl_->guard.reset();
  impl_->io->stop();
  for (auto& [id, thread] : workers) thread.join();
  for (auto& thread : ended) thread.join();
  impl_->jobs.clear();  // abandoned
  // After the workers: a job may have made the I/O thread.
  if (impl_->ioThread.joinable()) impl_->ioThread.join();
  // Abandoned handlers release their work tokens here, while the pool is still whole.
  impl_->io.reset();
}

std::size_t WorkerPool::defaultThreadCount() {
  // Jobs may block for a bounded time (a bag wait of one second, a disk write), so the pool may
  // grow wider than the machine; it only grows that far when jobs wait for each other.
  return std::max(4u, 2 * std::thread::hardware_concurrency());
}

void WorkerPool::post(Job job) {
  Job counted = [token = WorkToken(*this), job = std::move(job)] { runCounted(job); };
  std::vector<std::thread> ended;
  bool wake = false;
  {
    std::lock_guard lock(impl_->jobsMutex);
    if (impl_->stopping) return;  // abandoned, as the pool is going
    impl_->jobs.push_back(std::move(counted));
    if (impl_->waiting > impl_->wakeups) {
      ++impl_->wakeups;
      wake = true;
    } else if (impl_->threads < impl_->maxThreads) {
      startWorker();
    }
    ended.swap(impl_->ended);
  }
  // Woken after the lock is released, so that the worker does not wake only to wait for it.
  if (wake) impl_->jobReady.notify_one();
  for (auto& thread : ended) thread.join();
}

void WorkerPool::startWorker() {
  std::thread thread;
  try {
    thread = std::thread([this] { workerLoop(); });
  } catch (const std::system_error& e) {
    // The job waits for a worker that is already there, or for the next post().
    OrvexLogForCategory(kOrvexLogGeneral).error("cannot start a worker thread: %s", e.what());
    return;
  }
  ++impl_->threads;
  pthread_setname_np(thread.native_handle(), "orvex-worker");
  const std::thread::id id = thread.get_id();
  impl_->workers.emplace(id, std::move(thread));
}

void WorkerPool::workerLoop() {
  tCurrentPool = this;
  std::unique_lock lock(impl_->jobsMutex);
  while (!impl_->stopping) {
    if (!impl_->jobs.empty()) {
      Job job = std::move(impl_->jobs.front());
      impl_->jobs.pop_front();
      lock.unlock();
      job();
      job = nullptr;  // its work token ends with the job, not with the next wait
      lock.lock();
      continue;
    }
    ++impl_->waiting;
    const bool woken = impl_->jobReady.wait_for(
        lock, kIdleThreadLifetime, [this] { return impl_->wakeups > 0 || impl_->stopping; });
    --impl_->waiting;
    if (woken) {
      if (impl_->wakeups > 0) --impl_->wakeups;
    } else if (impl_->jobs.empty()) {
      break;  // idle for a while: the thread ends
    }
  }
  --impl_->threads;
  const bool lastToLeave = !impl_->stopping && impl_->threads == 0;
  if (!impl_->stopping) {
    // Joined by the next post() or by the destructor, which take the list under this lock.
    auto self = impl_->workers.find(std::this_thread::get_id());
    impl_->ended.push_back(std::move(self->second));
    impl_->workers.erase(self);
  }
  tCurrentPool = nullptr;
  lock.unlock();
  // The daemon has gone idle: the memory its jobs freed goes back to the system rather than
  // staying with the allocator's arenas until the next burst.
  if (lastToLeave) malloc_trim(0);
}

void WorkerPool::runCounted(const Job& job) {
  ++tCountedDepth;
  // A job that throws fails alone: the thread, its queue and the process carry on.
  try {
    job();
  } catch (const std::exception& e) {
    OrvexLogForCategory(kOrvexLogGeneral).fault("a queued job failed: %s", e.what());
  } catch (...) {
    OrvexLogForCategory(kOrvexLogGeneral).fault("a queued job failed");
  }
  --tCountedDepth;
}

WorkerPool* WorkerPool::currentCounted() { return tCountedDepth > 0 ? tCurrentPool : nullptr; }

bool WorkerPool::isPoolThread() const { return tCurrentPool == this; }

WorkerPool* WorkerPool::current() { return tCurrentPool; }

asio::io_context& WorkerPool::ioContext() {
  std::call_once(impl_->ioStarted, [this] {
    impl_->ioThread = std::thread([this] {
      tCurrentPool = this;
      impl_->io->run();
      tCurrentPool = nullptr;
    });
    pthread_setname_np(impl_->ioThread.native_handle(), "orvex-io");
  });
  return *impl_->io;
}
void WorkerPool::beginWork() {
  std::lock_guard lock(impl_->mutex);
  ++impl_->busy;
}

void WorkerPool::endWork() {
  std::lock_guard lock(impl_->mutex);
  if (--impl_->busy == 0) impl_->idle.notify_all();
}

void WorkerPool::waitUntilIdle() {
  std::unique_lock lock(impl_->mutex);
  impl_->idle.wait(lock, [this] { return impl_->busy == 0; });
}

void WorkerPool::suspendWork(WorkerPool* pool) {
  if (pool != nullptr) pool->endWork();
}

void WorkerPool::resumeWork(WorkerPool* pool) {
  if (pool != nullptr) pool->beginWork();
}

WorkerPool::WorkToken::WorkToken(WorkerPool& pool) {
  pool.beginWork();
  count_ = std::shared_ptr<void>(nullptr, [&pool](void*) { pool.endWork(); });
}

}  // namespace orvex
