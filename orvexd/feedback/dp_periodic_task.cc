#include "orvexd/feedback/dp_periodic_task.h"

#include <algorithm>

#include "orvexd/platform/orvex_ipc_activity.h"

namespace orvex {

std::shared_ptr<OrvexDPPeriodicTask> OrvexDPPeriodicTask::taskWithName(
    std::string name, uint64_t period, std::function<void()> handler, WorkerPool& pool,
    Clock& clock) {
  if (name.empty() || !handler) return nullptr;
  return std::make_shared<OrvexDPPeriodicTask>(std::move(name), period, std::move(handler), pool,
                                               clock);
}

OrvexDPPeriodicTask::OrvexDPPeriodicTask(std::string name, uint64_t period,
                                         std::function<void()> handler, WorkerPool& pool,
                                         Clock& clock)
    : name_(std::move(name)),
      periodSeconds_(std::max(period, kMinimumPeriodSeconds)),
      handler_(std::move(handler)),
      queue_("com.zelmor._DPPeriodicTasks.defaultQueue", pool, clock) {
  const Duration interval = std::chrono::seconds(periodSeconds_);
  executionCriteria_ = OrvexIpcCriteria::createCriteria();
  OrvexIpcCriteria::setDelay(interval, executionCriteria_);
  OrvexIpcCriteria::setInterval(interval, executionCriteria_);
  OrvexIpcCriteria::setRepeating(true, executionCriteria_);
  OrvexIpcCriteria::setGracePeriod(std::min(interval, kLongestGracePeriod), executionCriteria_);
  OrvexIpcCriteria::setRequireScreenSleep(true, executionCriteria_);
  OrvexIpcCriteria::setRequireUnlockedSinceBoot(true, executionCriteria_);
}

}  // namespace orvex
