// The registry of client states.
//
// A state is made on first use of its client identifier and kept for the life of the daemon.
// With the defaults key "ORVPersistSessions" set, the identifiers and user agents seen are
// written under "sessions" and the states are made again at the next start, before any client
// connects.
//
// Threading: "com.zelmor.orvexd.stateCache" owns stateCache_; lookups and listing wait for it
// (they must not be called from it), saving is posted to it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;
class ClientState;

class OrvexClientStateManager final : public ClientStateManager,
                                      public std::enable_shared_from_this<OrvexClientStateManager> {
 public:
  // Reads "ORVPersistSessions".
  explicit OrvexClientStateManager(Assembly& assembly);
  ~OrvexClientStateManager() override;
  // Makes the persisted states. Call once the manager is owned by a shared_ptr and the Assembly
  // holds the GUID controller and session manager the states use.
  void start();

  std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier) override;
  void saveState() override;
  std::vector<ClientSessionEntry> sessions() override;
  std::string endpoint() const override { return kOrvexEndpointPath; }

 private:
  void loadState();
  std::vector<ClientSessionEntry> sessionsOnQueue() const;

  Assembly& assembly_;
  const bool persistSessions_;
  SerialQueue stateCacheQueue_;  // "com.zelmor.orvexd.stateCache"
  std::map<std::string, std::shared_ptr<ClientState>> stateCache_;  // owned by stateCacheQueue_
};

}  // namespace orvex
