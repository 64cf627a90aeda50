#include "orvexd/network/user_guid_controller.h"

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

OrvexUserGUIDController::OrvexUserGUIDController(Assembly& assembly)
    : _assembly(assembly),
      _queue("com.zelmor.orvex.guid", *assembly.workerPool, *assembly.clock),
      _lastKnownUserGUID(Uuid::random()),
      _lastKnownUserGUIDExpirationDate(assembly.clock->wallNow() + kLifetime) {}

Uuid OrvexUserGUIDController::currentUserGUID() {
  if (_queue.isCurrent()) return currentOnQueue();
  return _queue.syncResult([this] { return currentOnQueue(); }).value_or(Uuid());
}

void OrvexUserGUIDController::reset() {
  _queue.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_rollGUID();
  });
}

Uuid OrvexUserGUIDController::currentOnQueue() {
  _queue.assertCurrent("currentUserGUID");
  if (_lastKnownUserGUIDExpirationDate - _assembly.clock->wallNow() <= Duration::zero()) {
    _rollGUID();
  }
  return _lastKnownUserGUID;
}

void OrvexUserGUIDController::_rollGUID() {
  _queue.assertCurrent("_rollGUID");
  _lastKnownUserGUID = Uuid::random();
  _lastKnownUserGUIDExpirationDate = _assembly.clock->wallNow() + kLifetime;
  _queue.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterUserGUID);
    self->_assembly.notificationCenter->post(kORVUserGUIDChangeNotification);
  });
}

}  // namespace orvex
