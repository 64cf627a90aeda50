#include "orvexd/platform/activity_scheduler.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& schedulerLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

// A repeating activity with no interval would run back to back without end.
constexpr Duration kShortestInterval = std::chrono::seconds(1);

}  // namespace

struct ActivityScheduler::Activity {
  ActivityCriteria criteria;
  Handler handler;
  int64_t state = kStateWait;
  // The next scheduled run; none while a scheduled run is in progress and once retired. A run
  // started by runNow() leaves it alone.
  std::optional<MonotonicTime> due;
};

ActivityScheduler::ActivityScheduler(WorkerPool& pool, Clock& clock) : pool_(pool), clock_(clock) {}

ActivityScheduler::~ActivityScheduler() {
  std::lock_guard lock(mutex_);
  timer_.cancel();
}

void ActivityScheduler::registerActivity(const std::string& identifier, ActivityCriteria criteria,
                                         Handler handler) {
  auto activity = std::make_shared<Activity>();
  activity->due = deadlineAfter(clock_.monotonicNow(), std::max(criteria.delay, Duration::zero()));
  activity->criteria = std::move(criteria);
  activity->handler = std::move(handler);
  std::lock_guard lock(mutex_);
  activities_[identifier] = std::move(activity);
  armLocked();
}

void ActivityScheduler::unregister(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  if (activities_.erase(identifier) > 0) armLocked();
}

bool ActivityScheduler::setState(const std::string& identifier, int64_t state) {
  std::lock_guard lock(mutex_);
  auto found = activities_.find(identifier);
  if (found == activities_.end()) return false;
  Activity& activity = *found->second;
  if (state == kStateContinue && activity.state == kStateRun) {
    activity.state = kStateContinue;
    return true;
  }
  if (state == kStateDone && (activity.state == kStateRun || activity.state == kStateContinue)) {
    finishLocked(activity);
    return true;
  }
  return false;
}

std::optional<int64_t> ActivityScheduler::getState(const std::string& identifier) const {
  std::lock_guard lock(mutex_);
  auto found = activities_.find(identifier);
  if (found == activities_.end()) return std::nullopt;
  return found->second->state;
}

bool ActivityScheduler::shouldDefer(const std::string&) const { return false; }

bool ActivityScheduler::runNow(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  auto found = activities_.find(identifier);
  if (found == activities_.end()) return false;
  const int64_t state = found->second->state;
  if (state == kStateRun || state == kStateContinue) return false;
  startLocked(found->first, found->second);
  return true;
}

void ActivityScheduler::armLocked() {
  std::optional<MonotonicTime> earliest;
  for (const auto& entry : activities_) {
    const auto& due = entry.second->due;
    if (due && (!earliest || *due < *earliest)) earliest = due;
  }
  if (earliest == timerDue_) return;
  timer_.cancel();
  timer_ = TimerHandle();
  timerDue_ = earliest;
  if (!earliest) return;
  const Duration delay = std::max(*earliest - clock_.monotonicNow(), Duration::zero());
  // The clock's thread only hands the firing on to the pool.
  timer_ = clock_.scheduleAfter(delay, [weak = weak_from_this(), pool = &pool_] {
    pool->post([weak] {
      if (auto self = weak.lock()) self->fire();
    });
  });
}

void ActivityScheduler::fire() {
  std::lock_guard lock(mutex_);
  timerDue_.reset();
  timer_ = TimerHandle();
  const MonotonicTime now = clock_.monotonicNow();
  for (const auto& [identifier, activity] : activities_) {
    if (!activity->due || *activity->due > now) continue;
    const ActivityCriteria& criteria = activity->criteria;
    if (activity->state == kStateRun || activity->state == kStateContinue) {
      // Started by runNow() and still at work: this run is skipped.
      activity->due =
          criteria.repeating
              ? std::optional(deadlineAfter(now, std::max(criteria.interval, kShortestInterval)))
              : std::nullopt;
      continue;
    }
    if (!sessionCriteriaMetLocked(criteria)) {
      activity->due = deadlineAfter(now, std::max(criteria.gracePeriod, kShortestInterval));
      continue;
    }
    // A late firing (suspend, a clock jump) runs once; the next run counts from its end.
    activity->due.reset();
    startLocked(identifier, activity);
  }
  armLocked();
}

void ActivityScheduler::setSessionStateSource(std::function<SessionState()> source) {
  std::lock_guard lock(mutex_);
  sessionState_ = std::move(source);
}

bool ActivityScheduler::sessionCriteriaMetLocked(const ActivityCriteria& criteria) const {
  if (!sessionState_ || (!criteria.requireScreenSleep && !criteria.requireUnlockedSinceBoot)) {
    return true;
  }
  const SessionState state = sessionState_();
  return (!criteria.requireScreenSleep || state.screenAsleep) &&
         (!criteria.requireUnlockedSinceBoot || state.unlockedSinceBoot);
}

void ActivityScheduler::startLocked(const std::string& identifier,
                                    const std::shared_ptr<Activity>& activity) {
  activity->state = kStateRun;
  pool_.post([weak = weak_from_this(), identifier, activity] {
    try {
      if (activity->handler) activity->handler(identifier);
    } catch (const std::exception& exception) {
      schedulerLog().error("activity %@ handler failed: %@", identifier, exception.what());
    } catch (...) {
      schedulerLog().error("activity %@ handler failed", identifier);
    }
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard lock(self->mutex_);
    // Returning without asking to continue ends the run, unless the activity was replaced.
    auto found = self->activities_.find(identifier);
    if (found != self->activities_.end() && found->second == activity &&
        activity->state == kStateRun) {
      self->finishLocked(*activity);
    }
  });
}

void ActivityScheduler::finishLocked(Activity& activity) {
  if (!activity.due && activity.criteria.repeating) {
    activity.due = deadlineAfter(clock_.monotonicNow(),
                                 std::max(activity.criteria.interval, kShortestInterval));
  }
  activity.state = activity.due ? kStateWait : kStateDone;
  armLocked();
}

}  // namespace orvex
