// System notify names on D-Bus: the broadcast signal SystemNotify(s name) of the interface
// com.zelmor.orvexd.Daemon on /com/zelmor/orvexd. The signal is declared (for introspection)
// with the rest of that interface by the OrvexService; the notifier only sends it.
#pragma once

#include <memory>

#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/system_notifier.h"

namespace sdbus {
class IObject;
}

namespace orvex {

class BusSystemNotifier final : public SystemNotifier {
 public:
  // `bus` must outlive the notifier.
  explicit BusSystemNotifier(BusConnection& bus);
  ~BusSystemNotifier() override;

  // The signal is emitted from the bus's event-loop thread, the only one that may send.
  void postNotification(const std::string& name) override;

 private:
  BusConnection& bus_;
  std::shared_ptr<sdbus::IObject> object_;  // shared with the posted emissions
};

}  // namespace orvex
