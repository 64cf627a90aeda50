// Values that callbacks on other threads hand to a test, in arrival order, and a wait for them.
//
//   testing::Collector<SystemChange> changes;
//   auto monitor = makeSystemChangeMonitor(pool, paths, changes.adder());
//   ASSERT_TRUE(changes.waitForCount(1));
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

namespace orvex::testing {

template <typename T>
class Collector {
 public:
  // Only a watchdog against a callback that never comes.
  static constexpr std::chrono::milliseconds kWatchdog = std::chrono::seconds(30);

  void add(T value) {
    std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    added_.notify_all();
  }
  // A callback that adds what it is called with.
  std::function<void(const T&)> adder() {
    return [this](const T& value) { add(value); };
  }

  // Waits until `condition(values)` holds; false when `watchdog` passes first.
  template <typename F>
  bool waitUntil(F condition, std::chrono::milliseconds watchdog = kWatchdog) {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, watchdog, [&] { return condition(values_); });
  }
  bool waitForCount(size_t count, std::chrono::milliseconds watchdog = kWatchdog) {
    return waitUntil([count](const std::vector<T>& values) { return values.size() >= count; },
                     watchdog);
  }

  std::vector<T> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  size_t size() const {
    std::lock_guard lock(mutex_);
    return values_.size();
  }
  void clear() {
    std::lock_guard lock(mutex_);
    values_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable added_;
  std::vector<T> values_;
};

}  // namespace orvex::testing
