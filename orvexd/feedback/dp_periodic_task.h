// A repeating maintenance job of the differential-privacy work: a name, a period, a handler and
// a serial queue of its own to run the handler on. Immutable once made.
//
// The activity criteria it is run under: every `periodSeconds` (first run one period after
// registration), repeating, maintenance priority (the in-process scheduler has no priorities:
// nothing to set), only while the screen is asleep and once the user has unlocked the device
// since boot. A due run whose session criteria fail is tried again after the grace period:
// the period, but at most 15 minutes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "orvexd/platform/activity_scheduler.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Clock;
class WorkerPool;

class OrvexDPPeriodicTask {
 public:
  // Shorter periods are raised to this.
  static constexpr uint64_t kMinimumPeriodSeconds = 5;
  static constexpr Duration kLongestGracePeriod = std::chrono::minutes(15);

  // None when the name is empty or the handler missing.
  static std::shared_ptr<OrvexDPPeriodicTask> taskWithName(std::string name, uint64_t period,
                                                           std::function<void()> handler,
                                                           WorkerPool& pool, Clock& clock);
  OrvexDPPeriodicTask(std::string name, uint64_t period, std::function<void()> handler,
                      WorkerPool& pool, Clock& clock);

  const std::string& name() const { return name_; }
  uint64_t periodSeconds() const { return periodSeconds_; }
  const std::function<void()>& handler() const { return handler_; }
  SerialQueue& queue() { return queue_; }
  const ActivityCriteria& executionCriteria() const { return executionCriteria_; }

 private:
  const std::string name_;
  const uint64_t periodSeconds_;
  const std::function<void()> handler_;
  SerialQueue queue_;
  ActivityCriteria executionCriteria_;
};

}  // namespace orvex
