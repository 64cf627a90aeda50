#include "orvexd/platform/virtual_clock.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

namespace orvex {

namespace {
constexpr auto kDefaultWallStart = std::chrono::sys_days{std::chrono::year{2026} / 1 / 1};
using TimerKey = std::pair<MonotonicTime, uint64_t>;  // deadline, then scheduling order
}  // namespace

struct VirtualClock::Core {
  struct Entry {
    std::function<void()> fire;
    std::shared_ptr<TimerHandle::State> state;
  };

  mutable std::mutex mutex;  // guards everything below
  WallTime wall;
  MonotonicTime monotonic;
  std::map<TimerKey, Entry> timers;
  uint64_t sequence = 0;
  std::function<void()> settle;
};

namespace {

// A cancelled firing leaves the table at once, so re-armed timers do not pile up.
struct VirtualTimerState final : TimerHandle::State {
  VirtualTimerState(std::weak_ptr<VirtualClock::Core> c, TimerKey k) : core(std::move(c)), key(k) {}
  void release() override;
  std::weak_ptr<VirtualClock::Core> core;
  TimerKey key;
};

}  // namespace

void VirtualTimerState::release() {
  if (auto clock = core.lock()) {
    std::lock_guard lock(clock->mutex);
    clock->timers.erase(key);
  }
}

VirtualClock::VirtualClock()
    : VirtualClock(WallTime(kDefaultWallStart), MonotonicTime(std::chrono::hours(1000))) {}

VirtualClock::VirtualClock(WallTime wallStart, MonotonicTime monotonicStart)
    : core_(std::make_shared<Core>()) {
  core_->wall = wallStart;
  core_->monotonic = monotonicStart;
}

WallTime VirtualClock::wallNow() const {
  std::lock_guard lock(core_->mutex);
  return core_->wall;
}

MonotonicTime VirtualClock::monotonicNow() const {
  std::lock_guard lock(core_->mutex);
  return core_->monotonic;
}

TimerHandle VirtualClock::scheduleAfter(Duration delay, std::function<void()> fire) {
  std::lock_guard lock(core_->mutex);
  const TimerKey key(deadlineAfter(core_->monotonic, std::max(delay, Duration::zero())),
                     core_->sequence++);
  auto state = std::make_shared<VirtualTimerState>(core_, key);
  core_->timers.emplace(key, Core::Entry{std::move(fire), state});
  return TimerHandle(std::move(state));
}

void VirtualClock::setSettle(std::function<void()> settle) {
  std::lock_guard lock(core_->mutex);
  core_->settle = std::move(settle);
}

void VirtualClock::settle() {
  std::function<void()> settle;
  {
    std::lock_guard lock(core_->mutex);
    settle = core_->settle;
  }
  if (settle) settle();
}

void VirtualClock::advance(Duration step) {
  settle();
  MonotonicTime target;
  {
    std::lock_guard lock(core_->mutex);
    target = deadlineAfter(core_->monotonic, std::max(step, Duration::zero()));
  }
  for (;;) {
    Core::Entry entry;
    {
      std::lock_guard lock(core_->mutex);
      auto next = core_->timers.begin();
      if (next == core_->timers.end() || next->first.first > target) break;
      const auto deadline = next->first.first;
      if (deadline > core_->monotonic) {
        core_->wall += deadline - core_->monotonic;
        core_->monotonic = deadline;
      }
      entry = std::move(next->second);
      core_->timers.erase(next);
    }
    if (!entry.state->cancelled.load()) {
      entry.fire();
      settle();
    }
  }
  std::lock_guard lock(core_->mutex);
  core_->wall += target - core_->monotonic;
  core_->monotonic = target;
}

void VirtualClock::setWallTime(WallTime wall) {
  std::lock_guard lock(core_->mutex);
  core_->wall = wall;
}

std::size_t VirtualClock::pendingTimers() const {
  std::lock_guard lock(core_->mutex);
  return core_->timers.size();
}

std::optional<MonotonicTime> VirtualClock::nextDeadline() const {
  std::lock_guard lock(core_->mutex);
  if (core_->timers.empty()) return std::nullopt;
  return core_->timers.begin()->first.first;
}

}  // namespace orvex
