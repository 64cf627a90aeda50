// A counting semaphore whose time-outs are measured on the daemon's clock.
//
// wait() takes one unit, blocking until one is signalled or the time-out passes on the clock
// (in virtual time under a VirtualClock). A worker thread that blocks here is parked: it does
// not keep WorkerPool::waitUntilIdle from returning.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "orvexd/platform/clock.h"

namespace orvex {

class CountingSemaphore {
 public:
  explicit CountingSemaphore(Clock& clock, int64_t initial = 0);
  CountingSemaphore(const CountingSemaphore&) = delete;
  CountingSemaphore& operator=(const CountingSemaphore&) = delete;

  void signal();
  // True when a unit was taken, false when the time-out passed first.
  [[nodiscard]] bool wait(Duration timeout);
  void waitForever();

 private:
  Clock& clock_;
  std::mutex mutex_;  // guards count_
  std::condition_variable changed_;
  int64_t count_;
};

}  // namespace orvex
