// A serial work queue: jobs run one at a time, in the order they were submitted, on the shared
// worker pool. Each component confines its mutable state to its own queue, named
// "com.zelmor.orvexd.<component>".
//
// Contract:
// - async() and after() may be called from any thread, including from the queue itself.
// - sync() blocks the caller until the job has run, after every job submitted before it. It
//   refuses (runs nothing, logs a fault and returns false) when the caller is on the queue
//   already, which would deadlock for certain. From anywhere else, a worker thread included, the
//   caller either runs the queue's jobs itself, up to and including its own, or waits for the
//   thread that is running them: it never waits for a free worker, so callers on the pool cannot
//   starve it. Two queues that sync onto each other deadlock; layer the calls.
// - trySync() runs the job at once on the calling thread when the queue is idle (no job queued
//   or running) and returns true; otherwise it runs nothing and returns false. It never waits,
//   so a thread that must not block (the bus thread) can still use a queue's state in order.
// - isCurrent() is true inside the queue's jobs, including while such a job waits in sync() on
//   another queue.
// - after() runs the job on the queue once `delay` has passed on the queue's clock. The queue
//   is held weakly meanwhile: a firing after the queue is destroyed does nothing.
// - Jobs that outlive the call that posted them must hold their owner weakly; destroying the
//   queue does not cancel jobs already submitted.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "orvexd/platform/clock.h"

namespace orvex {

class WorkerPool;

class SerialQueue {
 public:
  using Job = std::function<void()>;

  SerialQueue(std::string label, WorkerPool& pool, Clock& clock);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;
  Clock& clock() const;

  void async(Job job) const;
  [[nodiscard]] bool sync(const Job& job) const;
  [[nodiscard]] bool trySync(const Job& job) const;
  // trySync() when the queue is idle, async() otherwise: for short jobs handed over on a hot path,
  // which then cost no worker a wake-up. The caller must hold nothing the job may wait for.
  void runOrAsync(Job job) const;
  TimerHandle after(Duration delay, Job job) const;
  bool isCurrent() const;
  // Posts to this queue for as long as it exists, and does nothing afterwards; for holders that
  // may outlive the queue.
  std::function<void(Job)> weakPoster() const;

  // Runs `fn` on the queue and returns its result, or nothing if sync() refused.
  template <typename F>
  requires(!std::is_void_v<std::invoke_result_t<F&>>)
      std::optional<std::invoke_result_t<F&>> syncResult(F fn)
  const {
    std::optional<std::invoke_result_t<F&>> result;
    if (!sync([&] { result.emplace(fn()); })) return std::nullopt;
    return result;
  }

  // Stops the process with `what` when the caller is not on this queue. Private operations of
  // a component begin with this.
  void assertCurrent(const char* what) const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace orvex
