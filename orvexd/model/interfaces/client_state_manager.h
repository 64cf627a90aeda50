// What the connections and the endpoint need of the registry of client states.
// OrvexClientStateManager is the implementation.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "orvexd/base/time_types.h"
#include "orvexd/model/image_description.h"
#include "orvexd/platform/mapped_file.h"

namespace orvex {

class ClientState;
class ORVBag;

// One known client: {"identifier", "agent"}.
using ClientSessionEntry = std::map<std::string, std::string>;

// Image bytes by the "url" or "id" string they were asked for with. Each is the cached file's
// mapping, valid for as long as it is held.
using LoadedImages = std::map<std::string, std::shared_ptr<const MappedFile>>;

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

  // Images (callable from any thread; neither waits). Fetches every image `answer` names into
  // the URL cache, and remembers the hosts they are on as hosts clients may load images from.
  // Nothing happens without a bag.
  virtual void processImagesFromResponse(const nlohmann::json& answer,
                                         std::shared_ptr<const ORVBag> bag) = 0;
  // Fetches those of `images` that the cache lacks, from the hosts answers named only, and
  // calls `completion` once, on a worker thread, with the bytes the cache then holds: when the
  // fetches have ended or at `deadline` on the daemon's monotonic clock, whichever comes first.
  // Fetches still running then go on and fill the cache for later calls.
  using ImagesCompletion = std::function<void(LoadedImages)>;
  virtual void loadImages(std::vector<ImageDescription> images, MonotonicTime deadline,
                          ImagesCompletion completion) = 0;
};

}  // namespace orvex
