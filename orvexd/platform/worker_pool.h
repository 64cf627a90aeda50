// The shared pool of worker threads that every serial queue, timer and global job runs on.
//
// Jobs posted here (or through a SerialQueue on this pool) are counted while they are queued
// or running, so that tests can wait until the pool has nothing left to do. A thread that
// blocks on a semaphore or wait group is not counted as busy while it waits, so that a test
// driving virtual time never waits for a job that is itself waiting for virtual time to pass.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace orvex {

class WorkerPool {
 public:
  using Job = std::function<void()>;

  // Runs jobs on up to `threads` worker threads (at least one). Workers are made as jobs find
  // none free and end after a while without a job, so an idle pool has no thread waiting for
  // jobs; ioContext() has one thread of its own, made on first use.
  explicit WorkerPool(std::size_t threads);
  // Stops accepting jobs, abandons queued ones and joins the threads. Must not be called from one
  // of the pool's own jobs.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // The most threads the daemon's pool runs jobs on at once on this machine.
  static std::size_t defaultThreadCount();

  // Runs `job` on some worker thread (the "global queue").
  void post(Job job);

  // Whether the calling thread is one of this pool's workers.
  bool isPoolThread() const;
  // The pool the calling thread works for, if any.
  static WorkerPool* current();
  // The pool whose counted job the calling thread is running, if any.
  static WorkerPool* currentCounted();
  // Runs `job` on the calling worker thread as part of a counted job (used by the queues).
  static void runCounted(const Job& job);

  // Blocks until no counted job is queued or running (parked threads do not count).
  void waitUntilIdle();

  // Blocking primitives (CountingSemaphore, WaitGroup) take a worker out of the busy count while
  // it blocks, and whoever wakes it puts it back before waking it, so that waitUntilIdle never
  // mistakes a thread that is about to run for an idle one. Only a thread inside a counted job
  // (currentCounted()) is taken out. Both are no-ops for a null pool.
  static void suspendWork(WorkerPool* pool);
  static void resumeWork(WorkerPool* pool);

  // Counts one unit of work from construction to destruction. Copies count once between them:
  // the token is shared by the copies of a handler.
  class WorkToken {
   public:
    explicit WorkToken(WorkerPool& pool);

   private:
    std::shared_ptr<void> count_;
  };

  // For descriptors and strands; its handlers run on the pool's I/O thread.
  asio::io_context& ioContext();

 private:
  // Called with the jobs' lock held.
  void startWorker();
  void workerLoop();
  void beginWork();
  void endWork();

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex
