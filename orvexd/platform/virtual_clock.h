// A clock for tests: time stands still until the test advances it.
//
// advance() fires every timer that falls due within the step, one at a time in deadline order
// (ties in scheduling order), with the clock set to that timer's deadline while it fires. After
// each firing it calls the settle hook — normally WorkerPool::waitUntilIdle — so that the work
// the firing posted, including timers it re-arms, has happened before the next deadline is
// considered. Tests therefore see exactly the sequence a real run would produce, without
// sleeping.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "orvexd/platform/clock.h"

namespace orvex {

class VirtualClock final : public Clock {
 public:
  // Starts at the given instants; by default at 2026-01-01T00:00:00Z and an arbitrary monotonic
  // origin.
  VirtualClock();
  VirtualClock(WallTime wallStart, MonotonicTime monotonicStart);

  WallTime wallNow() const override;
  MonotonicTime monotonicNow() const override;
  TimerHandle scheduleAfter(Duration delay, std::function<void()> fire) override;

  // Called after each firing (and once at the start of advance) to let posted work finish.
  void setSettle(std::function<void()> settle);
  // Moves both clocks forward by `step`, firing what falls due on the way.
  void advance(Duration step);
  // Fires what is due now without moving time.
  void runDue() { advance(Duration::zero()); }
  // Moves wall time alone, as when the user changes the system time. No timer fires.
  void setWallTime(WallTime wall);

  std::size_t pendingTimers() const;
  std::optional<MonotonicTime> nextDeadline() const;

  struct Core;  // the clock's state, shared with the handles of its firings

 private:
  void settle();

  std::shared_ptr<Core> core_;
};

}  // namespace orvex
