// What the connections and the endpoint need of the registry of client states.
// OrvexClientStateManager is the implementation.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orvex {

class ClientState;

// One known client: {"identifier", "agent"}.
using ClientSessionEntry = std::map<std::string, std::string>;

class ClientStateManager {
 public:
  virtual ~ClientStateManager() = default;
  // The state of `identifier`, made on first use; none for an empty identifier.
  virtual std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier) = 0;
  // The state of `identifier` if there is one, without making one.
  virtual std::shared_ptr<ClientState> existingStateForClientIdentifier(
      const std::string& identifier) = 0;
  // Writes the known clients to the defaults, when they are persisted.
  virtual void saveState() = 0;
  // The known clients that have a user agent, whether or not they are persisted.
  virtual std::vector<ClientSessionEntry> sessions() = 0;
  // The object path of the endpoint.
  virtual std::string endpoint() const = 0;
};

}  // namespace orvex
