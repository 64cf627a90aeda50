#include "orvexd/query/client_state_manager.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/client_state.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }

constexpr const char* kSessionsKey = "sessions";

}  // namespace

OrvexClientStateManager::OrvexClientStateManager(Assembly& assembly)
    : assembly_(assembly),
      persistSessions_(assembly.userDefaults->boolForKey(kORVPersistSessionsKey)),
      stateCacheQueue_("com.zelmor.orvexd.stateCache", *assembly.workerPool, *assembly.clock) {}

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
    auto& slot = stateCache_[identifier];
    if (!slot) slot = ClientState::initWithIdentifier(identifier, assembly_);
    state = slot;
  });
  sessionLog().info("using client state: %@", identifier);
  return state;
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
    stateCache_[state->identifier()] = std::move(state);
  }
}

std::vector<ClientSessionEntry> OrvexClientStateManager::sessionsOnQueue() const {
  std::vector<ClientSessionEntry> entries;
  for (const auto& [identifier, state] : stateCache_) {
    auto agent = state->userAgent();
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

std::vector<ClientSessionEntry> OrvexClientStateManager::sessions() {
  return stateCacheQueue_.syncResult([this] { return sessionsOnQueue(); })
      .value_or(std::vector<ClientSessionEntry>());
}

}  // namespace orvex
