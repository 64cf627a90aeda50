// The registry of client states, and the endpoint through which clients send follow-up
// requests.
//
// A state is made on first use of its client identifier and kept for the life of the daemon.
// With the defaults key "ORVPersistSessions" set, the identifiers and user agents seen are
// written under "sessions" and the states are made again at the next start, before any client
// connects.
//
// The endpoint is the object /com/zelmor/orvexd/Endpoint (interface com.zelmor.orvexd.Endpoint)
// whose path Configure hands out. It serves only more-results and card requests; anything else
// sent there is dropped without a reply.
//
// Threading: "com.zelmor.orvexd.stateCache" owns stateCache_; lookups and listing wait for it
// (they must not be called from it), saving is posted to it. Endpoint calls arrive on the bus
// thread, which owns endpointCallers_, and run on the worker pool.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orvexd/platform/serial_queue.h"

namespace sdbus {
class IObject;
class Message;
}  // namespace sdbus

namespace orvex {

class Assembly;
class BusConnection;
class ClientState;

inline constexpr const char* kOrvexEndpointPath = "/com/zelmor/orvexd/Endpoint";
inline constexpr const char* kOrvexEndpointInterface = "com.zelmor.orvexd.Endpoint";

// One known client: {"identifier", "agent"}.
using ClientSessionEntry = std::map<std::string, std::string>;

class ClientStateManager {
 public:
  virtual ~ClientStateManager() = default;
  // The state of `identifier`, made on first use; none for an empty identifier.
  virtual std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier) = 0;
  // Writes the known clients to the defaults, when they are persisted.
  virtual void saveState() = 0;
  // The known clients that have a user agent, whether or not they are persisted.
  virtual std::vector<ClientSessionEntry> sessions() = 0;
  // The object path of the endpoint.
  virtual std::string endpoint() const = 0;
  // A bus client has gone; on the bus thread.
  virtual void endpointCallerGone(const std::string& uniqueName) = 0;
};

class OrvexClientStateManager final : public ClientStateManager,
                                      public std::enable_shared_from_this<OrvexClientStateManager> {
 public:
  // Reads "ORVPersistSessions". No endpoint is served without a bus (tests of the registry
  // alone).
  OrvexClientStateManager(Assembly& assembly, BusConnection* bus);
  ~OrvexClientStateManager() override;
  // Makes the persisted states and exports the endpoint. Call once the manager is owned by a
  // shared_ptr and the Assembly holds the GUID controller and session manager the states use.
  void start();

  std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier) override;
  void saveState() override;
  std::vector<ClientSessionEntry> sessions() override;
  std::string endpoint() const override { return kOrvexEndpointPath; }
  void endpointCallerGone(const std::string& uniqueName) override;

  bool persistSessions() const { return persistSessions_; }

 private:
  void loadState();
  std::vector<ClientSessionEntry> sessionsOnQueue() const;
  void exportEndpoint();
  void noteEndpointCaller(const sdbus::Message& message);

  Assembly& assembly_;
  BusConnection* const bus_;
  const bool persistSessions_;
  SerialQueue stateCacheQueue_;  // "com.zelmor.orvexd.stateCache"
  std::map<std::string, std::shared_ptr<ClientState>> stateCache_;  // owned by stateCacheQueue_
  std::shared_ptr<sdbus::IObject> endpointObject_;  // registered by start(), on the main thread
  std::set<std::string> endpointCallers_;  // bus thread: unique names that used the endpoint
};

}  // namespace orvex
