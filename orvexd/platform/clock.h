// The daemon's single source of time.
//
// Wall time dates things (expiries, timestamps written to disk); monotonic time measures
// durations and drives timers. Components never read the system clocks directly: they ask the
// Clock the Assembly holds, so that tests can substitute a VirtualClock and move hours ahead in
// microseconds.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "orvexd/base/time_types.h"

namespace orvex {

// Cancels a scheduled firing. Cancelling is best effort: a firing that has already begun runs to
// its end. Copies refer to the same firing; dropping the handle does not cancel.
class TimerHandle {
 public:
  // What a clock keeps for one firing. `release` frees the clock's resources for a cancelled
  // firing early; it is called at most once.
  struct State {
    virtual ~State() = default;
    virtual void release() {}
    std::atomic<bool> cancelled{false};
  };

  TimerHandle() = default;
  explicit TimerHandle(std::shared_ptr<State> state) : state_(std::move(state)) {}
  void cancel() const {
    if (state_ && !state_->cancelled.exchange(true)) state_->release();
  }

 private:
  std::shared_ptr<State> state_;
};

// Nanoseconds on the monotonic clock, as feedback records carry their time (never negative).
inline uint64_t monotonicNanoseconds(MonotonicTime time) {
  const auto count =
      std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
  return count < 0 ? 0 : static_cast<uint64_t>(count);
}

class Clock {
 public:
  virtual ~Clock() = default;

  virtual WallTime wallNow() const = 0;
  virtual MonotonicTime monotonicNow() const = 0;

  // Calls `fire` once, when `delay` has passed in this clock's monotonic time, unless cancelled
  // first. `fire` runs on a thread of the clock's choosing and must only hand work on (for
  // example post it to a queue); SerialQueue::after and OneShotTimer are built on this.
  virtual TimerHandle scheduleAfter(Duration delay, std::function<void()> fire) = 0;
};

// Real time: the system clocks, and asio timers on a thread of the clock's own, so that firings
// (and the time-outs of blocked workers) never wait for a free worker.
class SystemClock final : public Clock {
 public:
  SystemClock();
  // Withdraws the firings still pending.
  ~SystemClock() override;

  WallTime wallNow() const override;
  MonotonicTime monotonicNow() const override;
  TimerHandle scheduleAfter(Duration delay, std::function<void()> fire) override;

  struct Impl;  // the timer thread and its firings, shared with their handles

 private:
  std::shared_ptr<Impl> impl_;
};

// `from` + `delay`, saturated at the ends of the clock's range (so Duration::max() means
// "never").
MonotonicTime deadlineAfter(MonotonicTime from, Duration delay);

}  // namespace orvex
