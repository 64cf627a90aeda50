// Runs OrvexDPPeriodicTasks as activities of the daemon's scheduler, one activity per task, named
// after the task.
//
// Each run moves its activity on to "continue", then runs the task's handler on the task's own
// queue under a process transaction named after the task, and ends the run ("done") once the
// handler returns. Diagnostics.RunActivity runs a task at once the same way.
//
// The daemon makes one manager (so one per process) at start-up and keeps it in the Assembly.
// Threading: `allTasks_` is guarded by `mutex_`; registration may come from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace orvex {

class ActivityScheduler;
class OrvexDPPeriodicTask;

class OrvexDPPeriodicTaskManager : public std::enable_shared_from_this<OrvexDPPeriodicTaskManager> {
 public:
  explicit OrvexDPPeriodicTaskManager(std::shared_ptr<ActivityScheduler> scheduler);
  ~OrvexDPPeriodicTaskManager();
  OrvexDPPeriodicTaskManager(const OrvexDPPeriodicTaskManager&) = delete;
  OrvexDPPeriodicTaskManager& operator=(const OrvexDPPeriodicTaskManager&) = delete;

  // Replaces a task of the same name.
  void registerTask(const std::shared_ptr<OrvexDPPeriodicTask>& task);
  void unregisterTask(const std::shared_ptr<OrvexDPPeriodicTask>& task);
  std::map<std::string, std::shared_ptr<OrvexDPPeriodicTask>> allTasks() const;

 private:
  void runActivity(const std::string& name);

  const std::shared_ptr<ActivityScheduler> scheduler_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<OrvexDPPeriodicTask>> allTasks_;  // mutex_
};

}  // namespace orvex
