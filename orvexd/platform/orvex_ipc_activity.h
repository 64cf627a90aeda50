// The one place the daemon's components talk to the activity scheduler: OrvexIpcCriteria builds
// an activity's criteria a criterion at a time, and OrvexIpcActivity registers activities and
// moves them through their states. Both are class operations only; an activity is known by its
// scheduler and identifier.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "orvexd/platform/activity_scheduler.h"

namespace orvex {

class OrvexIpcCriteria {
 public:
  OrvexIpcCriteria() = delete;

  // Empty criteria: no delay, not repeating, battery allowed.
  static ActivityCriteria createCriteria() { return ActivityCriteria{}; }
  static void setRepeating(bool repeating, ActivityCriteria& criteria) {
    criteria.repeating = repeating;
  }
  static void setDelay(Duration delay, ActivityCriteria& criteria) { criteria.delay = delay; }
  static void setGracePeriod(Duration gracePeriod, ActivityCriteria& criteria) {
    criteria.gracePeriod = gracePeriod;
  }
  static void setAllowBatteryUsage(bool allow, ActivityCriteria& criteria) {
    criteria.allowBattery = allow;
  }
  static void setInterval(Duration interval, ActivityCriteria& criteria) {
    criteria.interval = interval;
  }
  static void setRequireScreenSleep(bool require, ActivityCriteria& criteria) {
    criteria.requireScreenSleep = require;
  }
  static void setRequireUnlockedSinceBoot(bool require, ActivityCriteria& criteria) {
    criteria.requireUnlockedSinceBoot = require;
  }
};

class OrvexIpcActivity {
 public:
  OrvexIpcActivity() = delete;

  static void registerActivityWithIdentifier(ActivityScheduler& scheduler,
                                             const std::string& identifier,
                                             ActivityCriteria criteria,
                                             ActivityScheduler::Handler handler);
  static void unregister(ActivityScheduler& scheduler, const std::string& identifier);
  // Whether the scheduler accepted the transition.
  static bool setState(ActivityScheduler& scheduler, const std::string& identifier, int64_t state);
  static std::optional<int64_t> getStateForActivity(const ActivityScheduler& scheduler,
                                                    const std::string& identifier);
  static bool shouldDefer(const ActivityScheduler& scheduler, const std::string& identifier);
};

}  // namespace orvex
