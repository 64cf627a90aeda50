#include "orvexd/network/user_guid_controller.h"

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

OrvexUserGUIDController::OrvexUserGUIDController(Assembly& assembly)
    : assembly_(assembly),
      queue_("com.zelmor.orvex.guid", *assembly.workerPool, *assembly.clock),
      lastKnownUserGUID_(Uuid::random()),
      lastKnownUserGUIDExpirationDate_(assembly.clock->wallNow() + kLifetime) {}

Uuid OrvexUserGUIDController::currentUserGUID() {
  if (queue_.isCurrent()) return currentOnQueue();
  return queue_.syncResult([this] { return currentOnQueue(); }).value_or(Uuid());
}

void OrvexUserGUIDController::reset() {
  queue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_rollGUID();
  });
}

Uuid OrvexUserGUIDController::currentOnQueue() {
  queue_.assertCurrent("currentUserGUID");
  if (lastKnownUserGUIDExpirationDate_ - assembly_.clock->wallNow() <= Duration::zero()) {
    _rollGUID();
  }
  return lastKnownUserGUID_;
}

void OrvexUserGUIDController::_rollGUID() {
  queue_.assertCurrent("_rollGUID");
  lastKnownUserGUID_ = Uuid::random();
  lastKnownUserGUIDExpirationDate_ = assembly_.clock->wallNow() + kLifetime;
  queue_.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterUserGUID);
    self->assembly_.notificationCenter->post(kORVUserGUIDChangeNotification);
  });
}

}  // namespace orvex
