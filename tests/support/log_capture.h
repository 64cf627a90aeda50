// Records what the daemon logs while it lives, for tests that check a log text.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "orvexd/base/orvex_logging.h"

namespace orvex::testing {

class LogCapture {
 public:
  LogCapture()
      : token_(addLogObserver([this](const LogRecord& record) {
          std::lock_guard lock(mutex_);
          messages_.emplace_back(record.message);
          logged_.notify_all();
        })) {}

  // How many messages were exactly `text`.
  size_t count(const std::string& text) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count(messages_.begin(), messages_.end(), text));
  }
  bool contains(const std::string& text) const { return count(text) > 0; }
  // Whether a message begins with `prefix`.
  bool containsPrefix(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    return std::any_of(messages_.begin(), messages_.end(),
                       [&](const std::string& m) { return m.rfind(prefix, 0) == 0; });
  }
  // Waits until a message begins with `prefix`; false when `watchdog` passes first.
  bool waitForPrefix(const std::string& prefix, std::chrono::milliseconds watchdog) {
    std::unique_lock lock(mutex_);
    return logged_.wait_for(lock, watchdog, [&] {
      return std::any_of(messages_.begin(), messages_.end(),
                         [&](const std::string& m) { return m.rfind(prefix, 0) == 0; });
    });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable logged_;
  std::vector<std::string> messages_;
  LogObserverToken token_;  // last: removed before the messages go
};

}  // namespace orvex::testing
