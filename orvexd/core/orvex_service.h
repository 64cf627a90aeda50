// OrvexService: the daemon's public face on the session bus, com.zelmor.orvexd.Daemon on
// /com/zelmor/orvexd.
//
// A client is one bus connection, known by its unique name. The service accepts it when its
// first call arrives, wraps it in a ClientConnection and lists it; the client stays listed until
// the bus reports its name gone (NameOwnerChanged with no new owner) and its feedback session
// has been dealt with. No client is ever refused; several connections from one process are only
// logged.
//
// Calls arrive on the bus thread. The service reads what it needs from the message there (the
// sender, its process id, the arguments as plain values), then runs the call on the client's own
// queue, so one client's calls keep their order and a slow one never holds up the bus; queries
// run side by side instead (see ClientConnection). Client calls run on the service's own call
// pool, so that clients blocked waiting for a bag cannot starve the components that fetch it.
// Replies and signals are sent back on the bus thread.
//
// Threading: live_ (the connections by unique name) belongs to the bus thread; connections_,
// the list in acceptance order, to the service queue "com.zelmor.orvex.serviceQueue".
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/core/bus_service.h"
#include "orvexd/model/input_limits.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/worker_pool.h"

namespace sdbus {
class MethodCall;
}  // namespace sdbus

namespace orvex {

class ClientConnection;

class OrvexService : public BusService, public std::enable_shared_from_this<OrvexService> {
 public:
  OrvexService(Assembly& assembly, BusConnection& bus);

  // Exports the Daemon interface and starts watching for clients leaving the bus. Call on the
  // main thread, before the bus name is owned, once the service is owned by a shared_ptr.
  void start();

  // The listed connections, in acceptance order (a copy). Not from the service queue.
  std::vector<std::shared_ptr<ClientConnection>> getClientConnections();

 private:
  void exportDaemonInterface();
  // Bus thread only.
  std::shared_ptr<ClientConnection> connectionForCall(const sdbus::MethodCall& call);
  std::shared_ptr<ClientConnection> accept(const std::string& uniqueName, pid_t pid);
  void invalidate(const std::string& uniqueName);

  // Threads that run the clients' calls, apart from the components' pool.
  static constexpr size_t kCallThreads = 4;

  WorkerPool callPool_;
  SerialQueue queue_;                                           // "com.zelmor.orvex.serviceQueue"
  std::vector<std::shared_ptr<ClientConnection>> connections_;  // owned by queue_
  std::map<std::string, std::shared_ptr<ClientConnection>> live_;  // bus thread
  const InputLimits limits_;                                       // read once from the defaults
};

}  // namespace orvex
