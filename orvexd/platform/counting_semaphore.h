// A counting semaphore whose time-outs are measured on the daemon's clock.
//
// wait() takes one unit, blocking until one is signalled or the time-out passes on the clock
// (in virtual time under a VirtualClock). Waiters are served in the order they came. A worker
// thread that blocks here does not keep WorkerPool::waitUntilIdle from returning.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/clock_wait.h"

namespace orvex {

class CountingSemaphore {
 public:
  explicit CountingSemaphore(Clock& clock, int64_t initial = 0);
  CountingSemaphore(const CountingSemaphore&) = delete;
  CountingSemaphore& operator=(const CountingSemaphore&) = delete;

  void signal();
  // True when a unit was taken, false when the time-out passed first.
  [[nodiscard]] bool wait(Duration timeout);

 private:
  Clock& clock_;
  std::mutex mutex_;  // guards count_ and waiters_
  int64_t count_;     // units available; never positive while someone waits
  ClockWaiters waiters_;
};

}  // namespace orvex
