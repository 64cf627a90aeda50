#include "orvexd/platform/bus_system_notifier.h"

#include <sdbus-c++/sdbus-c++.h>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"

namespace orvex {

BusSystemNotifier::BusSystemNotifier(BusConnection& bus)
    : bus_(bus), object_(sdbus::createObject(bus.connection(), kOrvexObjectPath)) {}

BusSystemNotifier::~BusSystemNotifier() = default;

void BusSystemNotifier::postNotification(const std::string& name) {
  bus_.post([object = object_, name] {
    try {
      object->emitSignal(kOrvexSystemNotifySignal)
          .onInterface(kOrvexDaemonInterface)
          .withArguments(name);
    } catch (const sdbus::Error& e) {
      OrvexLogForCategory(kOrvexLogGeneral)
          .error("cannot send SystemNotify %@: %@", name, e.getMessage());
    }
  });
}

}  // namespace orvex
