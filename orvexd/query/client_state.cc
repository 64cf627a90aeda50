#include "orvexd/query/client_state.h"

#include <array>

#include "orvexd/client/dbus_forms.h"
#include "orvexd/core/assembly.h"
#include "orvexd/core/orvex_logging.h"
#include "orvexd/core/orvex_names.h"
#include "orvexd/feedback/session_manager.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orv_constants.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/text_util.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }
const OrvexLog& cachingLog() { return OrvexLogForCategory(kOrvexLogCaching); }
const OrvexLog& searchLog() { return OrvexLogForCategory(kOrvexLogSearch); }

// The warm request's feedback: trigger event 19 ("warm") at endpoint 12 ("warm").
constexpr uint32_t kWarmTriggerEvent = 19;
constexpr uint32_t kWarmEndpoint = 12;

OrvexError bagError(const char* reason) { return OrvexError(dbus::kORVErrorDomain, 1, reason); }

uint64_t monotonicNanoseconds(const Clock& clock) {
  return static_cast<uint64_t>(clock.monotonicNow().time_since_epoch().count());
}

// Records one of the daemon's own records in the shared session manager.
void addDaemonFeedback(Assembly& assembly, FeedbackRecordPtr record) {
  if (!assembly.clientSessionManager) return;
  assembly.clientSessionManager->addOrvexFeedback(
      OrvexFeedback::initWithFeedback(std::move(record), 0, std::nullopt, kORVOrvexdNameVersion));
}

}  // namespace

std::optional<std::string> extractClientNameFromString(std::string_view text) {
  static constexpr std::array<std::string_view, 7> kNames = {
      "roamer", "glance", "voxa", "lookup", "messages", "news", "orvexd"};
  const std::string lower = asciiLowercase(text);
  for (const auto name : kNames) {
    if (lower.find(name) != std::string::npos) return std::string(name);
  }
  return std::nullopt;
}

std::shared_ptr<ClientState> ClientState::initWithIdentifier(std::string identifier,
                                                             Assembly& assembly) {
  return std::shared_ptr<ClientState>(new ClientState(std::move(identifier), assembly));
}

ClientState::ClientState(std::string identifier, Assembly& assembly)
    : assembly_(assembly),
      identifier_(std::move(identifier)),
      clientShortName_(extractClientNameFromString(identifier_)),
      bagFetchSemaphore_(*assembly.clock, 0) {
  if (assembly_.userDefaults && assembly_.userDefaults->boolForKey(kORVNoQueryCacheKey)) {
    cachingLog().info("query cache OFF for %@", identifier_);
  } else {
    cachingLog().debug("query cache ON for %@", identifier_);
  }
  if (assembly_.sharedSession) {
    sessionLog().info("Orvex is using shared instance of guid controller");
    guidController_ = assembly_.guidController;
    sessionManager_ = assembly_.clientSessionManager;
  } else {
    sessionLog().info("Orvex is using individual instance of guid controller %@", identifier_);
    guidController_ = std::make_shared<OrvexUserGUIDController>(assembly_);
    sessionManager_ = assembly_.clientSessionManager;
  }
}

ClientState::~ClientState() = default;

std::optional<ORVSessionConfiguration> ClientState::configuration() const {
  std::lock_guard lock(mutex_);
  return configuration_;
}

void ClientState::setConfiguration(ORVSessionConfiguration configuration) {
  std::lock_guard lock(mutex_);
  configuration_ = std::move(configuration);
}

std::string ClientState::userAgent() const {
  std::lock_guard lock(mutex_);
  return userAgent_;
}

void ClientState::setUserAgent(std::string userAgent) {
  std::lock_guard lock(mutex_);
  userAgent_ = std::move(userAgent);
}

std::shared_ptr<const ORVBag> ClientState::bag() const {
  std::lock_guard lock(mutex_);
  return bag_;
}

std::optional<WallTime> ClientState::lastNetworkRequest() const {
  std::lock_guard lock(mutex_);
  return lastNetworkRequest_;
}

void ClientState::bag(const std::string& userAgent, const BagReply& reply) {
  bool hasUserAgent = false;
  {
    std::lock_guard lock(mutex_);
    if (!userAgent.empty() && userAgent != userAgent_) {
      userAgent_ = userAgent;
      if (bag_) bag_ = ORVBag::initWithDictionary(bag_->rawBag(), userAgent_);
    }
    hasUserAgent = !userAgent_.empty();
  }
  if (!hasUserAgent) {
    reply(nullptr, bagError("no UserAgent"));
    return;
  }
  if (ensureBag()) {
    reply(bag(), std::nullopt);
  } else {
    reply(bag(), bagError("timeout"));
  }
}

bool ClientState::ensureBag() {
  std::string agent;
  {
    std::lock_guard lock(mutex_);
    if (userAgent_.empty()) return false;
    if (bag_) return true;
    agent = userAgent_;
    if (!bagObserver_.active()) {
      std::weak_ptr<ClientState> weakSelf = weak_from_this();
      bagObserver_ = assembly_.notificationCenter->addObserver(
          kORVBagChangeNotification, nullptr, [weakSelf](const Notification& notification) {
            if (auto self = weakSelf.lock()) self->bagChangeNotification(notification);
          });
    }
  }
  cachingLog().info("Warming bag cache for agent: %@", agent);
  if (auto current = assembly_.bagController ? assembly_.bagController->currentBag() : nullptr) {
    auto view = ORVBag::initWithDictionary(current->rawBag(), agent);
    std::lock_guard lock(mutex_);
    bag_ = std::move(view);
    return bag_ != nullptr;
  }
  markNetworkRequest();
  (void)bagFetchSemaphore_.wait(kBagWaitTimeout);
  return bag() != nullptr;
}

void ClientState::bagChangeNotification(const Notification& notification) {
  if (auto newBag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
      newBag && *newBag) {
    std::lock_guard lock(mutex_);
    bag_ = ORVBag::initWithDictionary((*newBag)->rawBag(), userAgent_);
  }
  bagFetchSemaphore_.signal();
}

void ClientState::markNetworkRequest() {
  std::lock_guard lock(mutex_);
  lastNetworkRequest_ = assembly_.clock->wallNow();
}

void ClientState::setPerformedSearch() {
  if (assembly_.requestFactory) assembly_.requestFactory->setPerformedSearch();
}

void ClientState::warm() {
  const auto url = assembly_.bagController ? assembly_.bagController->warmURL() : std::nullopt;
  if (!url) {
    searchLog().debug("warm not required, bag fetch in process");
    return;
  }
  if (const auto last = lastNetworkRequest();
      last && assembly_.clock->wallNow() - *last < kWarmInterval) {
    searchLog().debug("warm not required, connection still warm");
    return;
  }
  auto request = assembly_.requestFactory->warmRequest(*url);
  if (!request) return;

  auto start = std::make_shared<NBStartNetworkSearchFeedback>();
  start->timestamp = monotonicNanoseconds(*assembly_.clock);
  start->input = "";
  start->url = request->url;
  start->headers = FeedbackStringMap(request->headers.begin(), request->headers.end());
  start->triggerEvent = kWarmTriggerEvent;
  start->endpoint = kWarmEndpoint;
  addDaemonFeedback(assembly_, start);

  Assembly& assembly = assembly_;
  auto task = assembly_.urlSession->dataTask(
      std::move(*request), [&assembly, start](HttpDataResult result) {
        const int64_t status = result.response ? result.response->statusCode : 0;
        searchLog().info("Status for warm request: (%li) error: (%@)", status,
                         result.error ? result.error->describe() : std::string("(null)"));
        auto end = std::make_shared<NBEndNetworkSearchFeedback>();
        end->timestamp = monotonicNanoseconds(*assembly.clock);
        end->uuid = start->uuid;
        end->responseSize = static_cast<int64_t>(result.data.size());
        end->statusCode = status;
        end->networkTimingData = result.timing;
        addDaemonFeedback(assembly, end);
      });
  task->resume();
  markNetworkRequest();
}

void ClientState::unsupported(const ORVRequest& request, const QueryReply& reply) {
  reply(request.queryId, std::nullopt,
        OrvexError(
            dbus::kORVErrorDomain, 500,
            "request kind " + std::string(dbus::kindName(request.kind)) + " is not supported"));
}

void ClientState::search(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}
void ClientState::zeroKeyword(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}
void ClientState::moreResults(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}
void ClientState::card(const ORVRequest& request, QueryReply reply) { unsupported(request, reply); }
void ClientState::lookup(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}
void ClientState::flightSearch(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}
void ClientState::flightLookup(const ORVRequest& request, QueryReply reply) {
  unsupported(request, reply);
}

}  // namespace orvex
