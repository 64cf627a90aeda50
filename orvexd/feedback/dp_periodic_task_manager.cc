#include "orvexd/feedback/dp_periodic_task_manager.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/feedback/dp_periodic_task.h"
#include "orvexd/platform/orvex_ipc_activity.h"
#include "orvexd/platform/process_transaction.h"

namespace orvex {

namespace {

const OrvexLog& log() { return OrvexLogForCategory(kOrvexLogFeedback); }

}  // namespace

OrvexDPPeriodicTaskManager::OrvexDPPeriodicTaskManager(std::shared_ptr<ActivityScheduler> scheduler)
    : scheduler_(std::move(scheduler)) {}

OrvexDPPeriodicTaskManager::~OrvexDPPeriodicTaskManager() {
  if (!scheduler_) return;
  for (const auto& [name, task] : allTasks()) OrvexIpcActivity::unregister(*scheduler_, name);
}

void OrvexDPPeriodicTaskManager::registerTask(const std::shared_ptr<OrvexDPPeriodicTask>& task) {
  if (!task) return;
  {
    std::lock_guard lock(mutex_);
    allTasks_[task->name()] = task;
  }
  log().info("Registered CTS task %@", task->name());
  if (!scheduler_) return;
  // The in-process scheduler takes the criteria with the registration: the check-in is now.
  log().info("Checking-in activity %@", task->name());
  std::weak_ptr<OrvexDPPeriodicTaskManager> weak = weak_from_this();
  OrvexIpcActivity::registerActivityWithIdentifier(
      *scheduler_, task->name(), task->executionCriteria(), [weak](const std::string& name) {
        if (auto self = weak.lock()) self->runActivity(name);
      });
}

void OrvexDPPeriodicTaskManager::unregisterTask(const std::shared_ptr<OrvexDPPeriodicTask>& task) {
  if (!task) return;
  {
    std::lock_guard lock(mutex_);
    allTasks_.erase(task->name());
  }
  if (scheduler_) OrvexIpcActivity::unregister(*scheduler_, task->name());
}

std::map<std::string, std::shared_ptr<OrvexDPPeriodicTask>> OrvexDPPeriodicTaskManager::allTasks()
    const {
  std::lock_guard lock(mutex_);
  return allTasks_;
}

void OrvexDPPeriodicTaskManager::runActivity(const std::string& name) {
  std::shared_ptr<OrvexDPPeriodicTask> task;
  {
    std::lock_guard lock(mutex_);
    if (auto found = allTasks_.find(name); found != allTasks_.end()) task = found->second;
  }
  if (!task) return;
  const bool extended =
      OrvexIpcActivity::setState(*scheduler_, name, ActivityScheduler::kStateContinue);
  log().info("Running activity %@, extended=%d", name, static_cast<int>(extended));
  task->queue().async([task, extended, scheduler = scheduler_] {
    {
      ProcessTransaction transaction(task->name());
      runLoggingFailure(log(), "the periodic task", [&] { task->handler()(); });
    }
    if (extended) {
      OrvexIpcActivity::setState(*scheduler, task->name(), ActivityScheduler::kStateDone);
      log().info("Done running activity %@, extended=%d", task->name(), static_cast<int>(extended));
    }
  });
}

}  // namespace orvex
