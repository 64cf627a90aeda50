// The in-process activity scheduler: repeating background jobs, each run no earlier than its
// delay after registration and then about every interval, within its grace period.
//
// An activity is registered under an identifier with its criteria and a handler. When it is due
// the scheduler moves it to kStateRun and calls the handler with the identifier on a worker of
// the pool; the handler moves it on with setState(): to kStateContinue while it works
// asynchronously, then to kStateDone, which schedules the next run (repeating activities) or
// retires it; a handler that returns with its activity still in kStateRun has ended its run. A
// run due while the previous one is still in progress is skipped. Runs are spread
// within the grace period only in the sense that a late firing (the device was suspended, the
// clock jumped) runs once, not once per missed interval.
//
// The scheduler keeps one clock timer: the earliest due run. Between runs it wakes for nothing.
// runNow() runs a registered activity at once, as a due run would (for the Diagnostics
// interface and tests); the regular schedule is not moved by it.
//
// Threading: every call may be made from any thread; `mutex_` guards the activity table and the
// timer. The handler runs with no lock held and may call back into the scheduler; the
// session-state source runs under the lock and must not. The scheduler must be owned by a
// shared_ptr before the first registration (its timer and posted runs hold it weakly).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/logind_session_state.h"

namespace orvex {

class WorkerPool;

struct ActivityCriteria {
  Duration delay{0};  // before the first run, from registration
  bool repeating = false;
  Duration interval{0};     // between the ends of successive runs
  Duration gracePeriod{0};  // how late a run may start and still count as on time
  bool allowBattery = true;
  // Run only while the screen is asleep, and only once the user has unlocked the device since
  // boot; both read from the scheduler's session-state source when the run is due. A due run
  // whose criteria fail is tried again after the grace period.
  bool requireScreenSleep = false;
  bool requireUnlockedSinceBoot = false;
};

class ActivityScheduler : public std::enable_shared_from_this<ActivityScheduler> {
 public:
  // States an activity moves through.
  static constexpr int64_t kStateWait = 1;      // registered, waiting for its next run
  static constexpr int64_t kStateRun = 2;       // the handler has been called
  static constexpr int64_t kStateContinue = 4;  // the handler works on asynchronously
  static constexpr int64_t kStateDone = 5;      // the run has ended

  using Handler = std::function<void(const std::string& identifier)>;

  ActivityScheduler(WorkerPool& pool, Clock& clock);
  ~ActivityScheduler();
  ActivityScheduler(const ActivityScheduler&) = delete;
  ActivityScheduler& operator=(const ActivityScheduler&) = delete;

  // Replaces an activity of the same identifier.
  void registerActivity(const std::string& identifier, ActivityCriteria criteria, Handler handler);
  void unregister(const std::string& identifier);
  // Whether the transition was accepted: kStateContinue only from kStateRun, kStateDone from
  // kStateRun or kStateContinue.
  bool setState(const std::string& identifier, int64_t state);
  // Nothing for an unknown identifier.
  std::optional<int64_t> getState(const std::string& identifier) const;
  // Where requireScreenSleep and requireUnlockedSinceBoot are read; without one both are met.
  // Called under the scheduler's lock when a run with either criterion is due.
  void setSessionStateSource(std::function<SessionState()> source);

  // Whether a running activity should stop early and yield; the in-process scheduler never asks.
  bool shouldDefer(const std::string& identifier) const;
  // Runs a registered activity now; false for an unknown identifier or one already running.
  bool runNow(const std::string& identifier);

 private:
  struct Activity;
  // Arms the clock timer for the earliest due run, unless it is armed for that instant already.
  void armLocked();
  // The timer fired (on the pool): starts every run that is due.
  void fire();
  // Whether the session criteria of `criteria` hold now.
  bool sessionCriteriaMetLocked(const ActivityCriteria& criteria) const;
  // Moves `activity` to kStateRun and posts its handler to the pool.
  void startLocked(const std::string& identifier, const std::shared_ptr<Activity>& activity);
  // Ends the run of `activity`: schedules its next run or retires it.
  void finishLocked(Activity& activity);

  WorkerPool& pool_;
  Clock& clock_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Activity>> activities_;  // mutex_
  TimerHandle timer_;                                            // mutex_
  std::optional<MonotonicTime> timerDue_;                        // mutex_: when timer_ fires
  std::function<SessionState()> sessionState_;                   // mutex_
};

}  // namespace orvex
