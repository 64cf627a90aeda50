#include "orvexd/core/bus_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include "orvexd/platform/bus_connection.h"

namespace orvex {

BusService::BusService(Assembly& assembly, BusConnection& bus) : assembly_(assembly), bus_(bus) {}

BusService::~BusService() = default;

void BusService::watchCallersLeaving(std::function<void(const std::string& uniqueName)> left) {
  busDriver_ = watchConnectionsLeaving(bus_, std::move(left));
}

}  // namespace orvex
