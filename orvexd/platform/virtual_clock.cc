#include "orvexd/platform/virtual_clock.h"

namespace orvex {

namespace {
constexpr auto kDefaultWallStart = std::chrono::sys_days{std::chrono::year{2026} / 1 / 1};
}

VirtualClock::VirtualClock()
    : VirtualClock(WallTime(kDefaultWallStart), MonotonicTime(std::chrono::hours(1000))) {}

VirtualClock::VirtualClock(WallTime wallStart, MonotonicTime monotonicStart)
    : wall_(wallStart), monotonic_(monotonicStart) {}

WallTime VirtualClock::wallNow() const {
  std::lock_guard lock(mutex_);
  return wall_;
}

MonotonicTime VirtualClock::monotonicNow() const {
  std::lock_guard lock(mutex_);
  return monotonic_;
}

TimerHandle VirtualClock::scheduleAfter(Duration delay, std::function<void()> fire) {
  auto state = std::make_shared<TimerHandle::State>();
  std::lock_guard lock(mutex_);
  const auto deadline = monotonic_ + std::max(delay, Duration::zero());
  timers_.emplace(std::make_pair(deadline, sequence_++), Entry{std::move(fire), state});
  return TimerHandle(std::move(state));
}

void VirtualClock::setSettle(std::function<void()> settle) {
  std::lock_guard lock(mutex_);
  settle_ = std::move(settle);
}

void VirtualClock::settle() {
  std::function<void()> settle;
  {
    std::lock_guard lock(mutex_);
    settle = settle_;
  }
  if (settle) settle();
}

void VirtualClock::advance(Duration step) {
  settle();
  MonotonicTime target;
  {
    std::lock_guard lock(mutex_);
    target = monotonic_ + std::max(step, Duration::zero());
  }
  for (;;) {
    Entry entry;
    {
      std::lock_guard lock(mutex_);
      auto next = timers_.begin();
      if (next == timers_.end() || next->first.first > target) break;
      const auto deadline = next->first.first;
      if (deadline > monotonic_) {
        wall_ += deadline - monotonic_;
        monotonic_ = deadline;
      }
      entry = std::move(next->second);
      timers_.erase(next);
    }
    if (!entry.state->cancelled.load()) {
      entry.fire();
      settle();
    }
  }
  std::lock_guard lock(mutex_);
  wall_ += target - monotonic_;
  monotonic_ = target;
}

void VirtualClock::setWallTime(WallTime wall) {
  std::lock_guard lock(mutex_);
  wall_ = wall;
}

std::size_t VirtualClock::pendingTimers() const {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (const auto& [key, entry] : timers_) {
    if (!entry.state->cancelled.load()) ++count;
  }
  return count;
}

std::optional<MonotonicTime> VirtualClock::nextDeadline() const {
  std::lock_guard lock(mutex_);
  for (const auto& [key, entry] : timers_) {
    if (!entry.state->cancelled.load()) return key.first;
  }
  return std::nullopt;
}

}  // namespace orvex
