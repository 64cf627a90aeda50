#include "orvexd/platform/orvex_ipc_activity.h"

#include <utility>

namespace orvex {

void OrvexIpcActivity::registerActivityWithIdentifier(ActivityScheduler& scheduler,
                                                      const std::string& identifier,
                                                      ActivityCriteria criteria,
                                                      ActivityScheduler::Handler handler) {
  scheduler.registerActivity(identifier, std::move(criteria), std::move(handler));
}

void OrvexIpcActivity::unregister(ActivityScheduler& scheduler, const std::string& identifier) {
  scheduler.unregister(identifier);
}

bool OrvexIpcActivity::setState(ActivityScheduler& scheduler, const std::string& identifier,
                                int64_t state) {
  return scheduler.setState(identifier, state);
}

std::optional<int64_t> OrvexIpcActivity::getStateForActivity(const ActivityScheduler& scheduler,
                                                             const std::string& identifier) {
  return scheduler.getState(identifier);
}

bool OrvexIpcActivity::shouldDefer(const ActivityScheduler& scheduler,
                                   const std::string& identifier) {
  return scheduler.shouldDefer(identifier);
}

}  // namespace orvex
