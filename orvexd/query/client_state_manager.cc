#include "orvexd/query/client_state_manager.h"

#include <sdbus-c++/sdbus-c++.h>

#include "orvexd/client/dbus_forms.h"
#include "orvexd/core/assembly.h"
#include "orvexd/core/orvex_logging.h"
#include "orvexd/core/orvex_names.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/query/client_state.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }
const OrvexLog& connectionLog() { return OrvexLogForCategory(kOrvexLogConnection); }

constexpr const char* kSessionsKey = "sessions";

using EndpointReply = BusReply<int64_t, dbus::Dict, dbus::Dict>;

std::string describeConfiguration(const dbus::Dict& form) {
  std::string text = "{";
  for (const auto& [key, value] : form) {
    if (text.size() > 1) text += ", ";
    text += key;
    if (value.containsValueOfType<std::string>()) text += " = " + value.get<std::string>();
  }
  return text + "}";
}

}  // namespace

OrvexClientStateManager::OrvexClientStateManager(Assembly& assembly, BusConnection* bus)
    : assembly_(assembly),
      bus_(bus),
      persistSessions_(assembly.userDefaults->boolForKey(kORVPersistSessionsKey)),
      stateCacheQueue_("com.zelmor.orvexd.stateCache", *assembly.workerPool, *assembly.clock) {}

OrvexClientStateManager::~OrvexClientStateManager() = default;

void OrvexClientStateManager::start() {
  (void)stateCacheQueue_.sync([this] { loadState(); });
  if (bus_ != nullptr) exportEndpoint();
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

void OrvexClientStateManager::noteEndpointCaller(const sdbus::Message& message) {
  if (endpointCallers_.insert(message.getSender()).second) {
    connectionLog().debug("new endpoint connection");
  }
}

void OrvexClientStateManager::endpointCallerGone(const std::string& uniqueName) {
  if (endpointCallers_.erase(uniqueName) > 0)
    connectionLog().debug("endpoint connection invalidated");
}

void OrvexClientStateManager::exportEndpoint() {
  endpointObject_ = sdbus::createObject(bus_->connection(), kOrvexEndpointPath);
  std::weak_ptr<OrvexClientStateManager> weakSelf = weak_from_this();
  BusConnection& bus = *bus_;
  sdbus::IObject* endpointObject = endpointObject_.get();
  endpointObject_->registerMethod("Request")
      .onInterface(kOrvexEndpointInterface)
      .withInputParamNames("request", "configuration")
      .withOutputParamNames("query_id", "reply", "error")
      .implementedAs([weakSelf, &bus, endpointObject](
                         sdbus::Result<int64_t, dbus::Dict, dbus::Dict>&& result,
                         const dbus::Dict& requestForm, const dbus::Dict& configurationForm) {
        runBusHandler("Endpoint.Request", [&] {
          EndpointReply reply(bus, std::move(result));
          auto self = weakSelf.lock();
          if (!self) return;
          self->noteEndpointCaller(*endpointObject->getCurrentlyProcessedMessage());
          // Read on the bus thread: what crosses to the pool are plain values.
          auto form = dbus::requestFromDBus(requestForm);
          if (!form.request) {
            if (!form.problem.empty()) reply.fail(dbus::kErrorInvalidArgument, form.problem);
            return;  // an unknown kind is dropped
          }
          std::string problem;
          auto configuration = dbus::configurationFromDBus(configurationForm, &problem);
          self->assembly_.workerPool->post([self, reply, request = std::move(*form.request),
                                            configuration = std::move(configuration),
                                            described = describeConfiguration(configurationForm)] {
            auto state =
                configuration ? self->stateForClientIdentifier(configuration->identifier) : nullptr;
            if (!state) {
              const OrvexError error(dbus::kORVErrorDomain, 500,
                                     "invalid configuration " + described);
              reply.sendFrom([queryId = request.queryId, error] {
                return std::make_tuple(queryId, dbus::Dict(), dbus::toDBus(error));
              });
              return;
            }
            auto answer = [reply](int64_t queryId, std::optional<ORVReply> answer,
                                  std::optional<OrvexError> error) {
              reply.sendFrom([queryId, answer = std::move(answer), error] {
                return std::make_tuple(queryId, dbus::toDBus(answer), dbus::toDBus(error));
              });
            };
            if (request.kind == ORVRequestKind::kMoreResults) {
              state->moreResults(request, answer);
            } else if (request.kind == ORVRequestKind::kCard) {
              state->card(request, answer);
            }
          });
        });
      });
  endpointObject_->registerMethod("LoadImages")
      .onInterface(kOrvexEndpointInterface)
      .withInputParamNames("images", "timeout_ms")
      .withOutputParamNames("images")
      .implementedAs([&bus](sdbus::Result<std::map<std::string, std::vector<uint8_t>>>&& result,
                            std::vector<dbus::Dict>, uint64_t) {
        runBusHandler("Endpoint.LoadImages", [&] {
          BusReply<std::map<std::string, std::vector<uint8_t>>> reply(bus, std::move(result));
          reply.fail(dbus::kErrorNotSupported, "image loading is not available");
        });
      });
  endpointObject_->finishRegistration();
  connectionLog().debug("endpoint %@ exported", std::string(kOrvexEndpointPath));
}

}  // namespace orvex
