// A weak stand-in for ActivityScheduler::runNow, which RunActivity calls, while the daemon is
// built without the scheduler's own sources. Start-up makes no scheduler meanwhile
// (Assembly::activityScheduler stays null and RunActivity checks that first), so this never
// runs; once the scheduler is linked in, its definition replaces this one. Delete this file when
// adding the scheduler's sources.
#include "orvexd/platform/activity_scheduler.h"

namespace orvex {

[[gnu::weak]] bool ActivityScheduler::runNow(const std::string&) { return false; }

}  // namespace orvex
