// A group of outstanding pieces of work: enter() before each starts, leave() when it ends.
//
// wait() blocks until the group is empty or the deadline passes on the daemon's clock. notify()
// runs a job on a queue once the group is empty (at once if it already is); a queue destroyed
// meanwhile simply does not run it. Blocked worker threads do not count as busy, as for
// CountingSemaphore.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/clock_wait.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class WaitGroup {
 public:
  explicit WaitGroup(Clock& clock);
  WaitGroup(const WaitGroup&) = delete;
  WaitGroup& operator=(const WaitGroup&) = delete;

  void enter();
  // Leaving more often than entering is a programming error and stops the process.
  void leave();
  // True when the group emptied, false when `timeout` passed first.
  [[nodiscard]] bool wait(Duration timeout);
  void notify(const SerialQueue& queue, std::function<void()> job);

 private:
  Clock& clock_;
  std::mutex mutex_;  // guards everything below
  int64_t outstanding_ = 0;
  ClockWaiters waiters_;
  struct Pending {
    std::function<void(SerialQueue::Job)> post;  // holds the queue weakly
    std::function<void()> job;
  };
  std::vector<Pending> notifications_;
};

}  // namespace orvex
