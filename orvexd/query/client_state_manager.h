// The registry of client states.
//
// A state is made on first use of its client identifier, by a configuration. With the defaults
// key "ORVPersistSessions" set, the identifiers and user agents seen are written under
// "sessions" and the states are made again at the next start, before any client connects.
//
// A state that nothing but the registry holds (no connection is bound to it, no query is under
// way) and that has not been handed out for kIdleLifetime is dropped, unless it is persisted
// (persistence on and a user agent known): clients that configured once and left, or identifiers
// made up by a caller, do not stay in memory for ever. The registry sees who holds a state by
// its reference count, checked by a sweep every kSweepInterval on the daemon's clock, armed only
// while there are states it could drop; so a state goes between one day and one day and an hour
// after its last use.
//
// Images go to the manager's image fetcher (image_fetcher.h), which keeps its own state.
//
// Threading: "com.zelmor.orvexd.stateCache" owns stateCache_ and sweepArmed_; lookups and
// listing wait for it (they must not be called from it), saving and sweeping are posted to it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;
class ClientState;
class ImageFetcher;

class OrvexClientStateManager final : public ClientStateManager,
                                      public std::enable_shared_from_this<OrvexClientStateManager> {
 public:
  // Reads "ORVPersistSessions".
  explicit OrvexClientStateManager(Assembly& assembly);
  ~OrvexClientStateManager() override;
  // Makes the persisted states. Call once the manager is owned by a shared_ptr and the Assembly
  // holds the GUID controller and session manager the states use.
  void start();

  static constexpr Duration kIdleLifetime = std::chrono::hours(24);
  static constexpr Duration kSweepInterval = std::chrono::hours(1);

  std::shared_ptr<ClientState> stateForClientIdentifier(const std::string& identifier) override;
  std::shared_ptr<ClientState> existingStateForClientIdentifier(
      const std::string& identifier) override;
  void saveState() override;
  std::vector<ClientSessionEntry> sessions() override;
  std::string endpoint() const override { return kOrvexEndpointPath; }
  void processImagesFromResponse(const nlohmann::json& answer,
                                 std::shared_ptr<const ORVBag> bag) override;
  void loadImages(std::vector<ImageDescription> images, MonotonicTime deadline,
                  ImagesCompletion completion) override;

 private:
  struct Entry {
    std::shared_ptr<ClientState> state;
    MonotonicTime lastUsed;  // last handed out, or last seen held by someone else
  };

  void loadState();
  std::vector<ClientSessionEntry> sessionsOnQueue() const;
  bool isPersisted(const ClientState& state) const;
  // Both on stateCacheQueue_.
  void armSweep();
  void sweep();

  Assembly& assembly_;
  const bool persistSessions_;
  SerialQueue stateCacheQueue_;              // "com.zelmor.orvexd.stateCache"
  std::map<std::string, Entry> stateCache_;  // owned by stateCacheQueue_
  bool sweepArmed_ = false;                  // owned by stateCacheQueue_
  const std::shared_ptr<ImageFetcher> imageFetcher_;
};

}  // namespace orvex
