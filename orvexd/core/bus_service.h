// What the daemon's services on the bus share: the components and the bus they are made with,
// the object they export, and a watch on the connections that leave the bus, whose calls the
// services then forget.
//
// Threading: object_ and the watch are set up on the main thread by the service's start(),
// before the bus name is owned; the watch reports on the bus thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace sdbus {
class IObject;
class IProxy;
}  // namespace sdbus

namespace orvex {

class Assembly;
class BusConnection;

class BusService {
 public:
  BusService(Assembly& assembly, BusConnection& bus);
  virtual ~BusService();
  BusService(const BusService&) = delete;
  BusService& operator=(const BusService&) = delete;

 protected:
  // Calls `left` on the bus thread with the unique name of every connection that leaves the
  // bus, for as long as the service lives.
  void watchCallersLeaving(std::function<void(const std::string& uniqueName)> left);

  Assembly& assembly_;
  BusConnection& bus_;
  std::shared_ptr<sdbus::IObject> object_;  // set by start()

 private:
  std::unique_ptr<sdbus::IProxy> busDriver_;  // set by watchCallersLeaving()
};

}  // namespace orvex
