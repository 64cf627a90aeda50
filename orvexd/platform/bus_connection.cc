#include "orvexd/platform/bus_connection.h"

#include <sdbus-c++/IConnection.h>

#include <cstdlib>

namespace orvex {

BusConnection::BusConnection(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)) {}

BusConnection::~BusConnection() = default;

std::unique_ptr<BusConnection> BusConnection::connectToSessionBus(std::string* error) {
  try {
    const char* starterType = std::getenv("DBUS_STARTER_BUS_TYPE");
    const char* starterAddress = std::getenv("DBUS_STARTER_ADDRESS");
    std::unique_ptr<sdbus::IConnection> connection;
    if (starterType != nullptr && std::string_view(starterType) == "session" &&
        starterAddress != nullptr && *starterAddress != '\0') {
      connection = sdbus::createSessionBusConnectionWithAddress(starterAddress);
    } else {
      connection = sdbus::createSessionBusConnection();
    }
    return std::make_unique<BusConnection>(std::move(connection));
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return nullptr;
  }
}

sdbus::IConnection& BusConnection::connection() { return *connection_; }

bool BusConnection::requestName(const std::string& name, std::string* error) {
  try {
    connection_->requestName(name);
    return true;
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return false;
  }
}

void BusConnection::runEventLoop() { connection_->enterEventLoop(); }

}  // namespace orvex
