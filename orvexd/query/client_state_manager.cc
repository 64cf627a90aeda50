#include "orvexd/query/client_state_manager.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/client_state.h"
#include "orvexd/query/image_fetcher.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }

constexpr const char* kSessionsKey = "sessions";

}  // namespace

OrvexClientStateManager::OrvexClientStateManager(Assembly& assembly)
    : assembly_(assembly),
      persistSessions_(assembly.userDefaults->boolForKey(kORVPersistSessionsKey)),
      stateCacheQueue_("com.zelmor.orvexd.stateCache", *assembly.workerPool, *assembly.clock),
      imageFetcher_(std::make_shared<ImageFetcher>(assembly)) {}

OrvexClientStateManager::~OrvexClientStateManager() = default;

void OrvexClientStateManager::start() {
  (void)stateCacheQueue_.sync([this] { loadState(); });
}

std::shared_ptr<ClientState> OrvexClientStateManager::stateForClientIdentifier(
    const std::string& identifier) {
  if (identifier.empty()) {
    sessionLog().fault("client session identifier cannot be nil or empty");
    return nullptr;
  }
  std::shared_ptr<ClientState> state;
  (void)stateCacheQueue_.sync([&] {
    auto& entry = stateCache_[identifier];
    if (!entry.state) entry.state = ClientState::initWithIdentifier(identifier, assembly_);
    entry.lastUsed = assembly_.clock->monotonicNow();
    state = entry.state;
    armSweep();
  });
  sessionLog().info("using client state: %@", identifier);
  return state;
}

std::shared_ptr<ClientState> OrvexClientStateManager::existingStateForClientIdentifier(
    const std::string& identifier) {
  std::shared_ptr<ClientState> state;
  (void)stateCacheQueue_.sync([&] {
    const auto found = stateCache_.find(identifier);
    if (found == stateCache_.end()) return;
    found->second.lastUsed = assembly_.clock->monotonicNow();
    state = found->second.state;
  });
  return state;
}

bool OrvexClientStateManager::isPersisted(const ClientState& state) const {
  return persistSessions_ && !state.userAgent().empty();
}

void OrvexClientStateManager::armSweep() {
  stateCacheQueue_.assertCurrent("OrvexClientStateManager::armSweep");
  if (sweepArmed_) return;
  sweepArmed_ = true;
  stateCacheQueue_.after(kSweepInterval, [weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) self->sweep();
  });
}

void OrvexClientStateManager::sweep() {
  stateCacheQueue_.assertCurrent("OrvexClientStateManager::sweep");
  sweepArmed_ = false;
  const MonotonicTime now = assembly_.clock->monotonicNow();
  bool droppable = false;
  for (auto it = stateCache_.begin(); it != stateCache_.end();) {
    Entry& entry = it->second;
    if (isPersisted(*entry.state)) {
      ++it;
      continue;
    }
    // A count of one: no connection and no query holds the state. Weak references (its bag
    // observer's) do not count; one locked meanwhile keeps a dropped state only for its call.
    if (entry.state.use_count() > 1) {
      entry.lastUsed = now;
    } else if (now - entry.lastUsed >= kIdleLifetime) {
      sessionLog().info("dropping unused client state: %@", it->first);
      it = stateCache_.erase(it);
      continue;
    }
    droppable = true;
    ++it;
  }
  if (droppable) armSweep();
}

void OrvexClientStateManager::loadState() {
  if (!persistSessions_) return;
  const auto saved = assembly_.userDefaults->arrayForKey(kSessionsKey);
  if (!saved) return;
  for (const auto& element : *saved) {
    const auto* entry = element.asDictionary();
    if (entry == nullptr) continue;
    const auto identifier = entry->find("identifier");
    if (identifier == entry->end() || identifier->second.asString() == nullptr) continue;
    auto state = ClientState::initWithIdentifier(*identifier->second.asString(), assembly_);
    if (const auto agent = entry->find("agent");
        agent != entry->end() && agent->second.asString() != nullptr) {
      state->setUserAgent(*agent->second.asString());
    }
    auto& slot = stateCache_[state->identifier()];
    slot = Entry{std::move(state), assembly_.clock->monotonicNow()};
  }
  if (!stateCache_.empty()) armSweep();  // some may have no user agent, and go
}

std::vector<ClientSessionEntry> OrvexClientStateManager::sessionsOnQueue() const {
  std::vector<ClientSessionEntry> entries;
  for (const auto& [identifier, entry] : stateCache_) {
    auto agent = entry.state->userAgent();
    if (agent.empty()) continue;
    entries.push_back({{"identifier", identifier}, {"agent", std::move(agent)}});
  }
  return entries;
}

void OrvexClientStateManager::saveState() {
  if (!persistSessions_) return;
  std::weak_ptr<OrvexClientStateManager> weakSelf = weak_from_this();
  stateCacheQueue_.async([weakSelf] {
    auto self = weakSelf.lock();
    if (!self) return;
    PlistArray array;
    for (const auto& entry : self->sessionsOnQueue()) {
      PlistDictionary dictionary;
      for (const auto& [key, value] : entry) dictionary.emplace(key, PlistValue(value));
      array.emplace_back(std::move(dictionary));
    }
    self->assembly_.userDefaults->setObject(kSessionsKey, PlistValue(std::move(array)));
    self->assembly_.userDefaults->synchronize();
  });
}

void OrvexClientStateManager::processImagesFromResponse(const nlohmann::json& answer,
                                                        std::shared_ptr<const ORVBag> bag) {
  imageFetcher_->processImagesFromResponse(answer, std::move(bag));
}

void OrvexClientStateManager::loadImages(std::vector<ImageDescription> images,
                                         MonotonicTime deadline, ImagesCompletion completion) {
  imageFetcher_->loadImages(std::move(images), deadline, std::move(completion));
}

std::vector<ClientSessionEntry> OrvexClientStateManager::sessions() {
  return stateCacheQueue_.syncResult([this] { return sessionsOnQueue(); })
      .value_or(std::vector<ClientSessionEntry>());
}

}  // namespace orvex
