#include "orvexd/query/client_state.h"

#include <array>
#include <vector>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/feedback/client_session_manager.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/network/network_feedback.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/network/request_recipe.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/uuid.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/flight_debug_data.h"
#include "orvexd/query/network_query.h"
#include "orvexd/query/query_cache.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }
const OrvexLog& cachingLog() { return OrvexLogForCategory(kOrvexLogCaching); }
const OrvexLog& searchLog() { return OrvexLogForCategory(kOrvexLogSearch); }

// The warm request's feedback: trigger event 19 ("warm") at endpoint 12 ("warm").
constexpr uint32_t kWarmTriggerEvent = 19;
constexpr uint32_t kWarmEndpoint = 12;

OrvexError bagError(const char* reason) { return OrvexError(kORVErrorDomain, 1, reason); }

}  // namespace

std::shared_ptr<ClientState> ClientState::initWithIdentifier(std::string identifier,
                                                             Assembly& assembly) {
  return std::shared_ptr<ClientState>(new ClientState(std::move(identifier), assembly));
}

ClientState::ClientState(std::string identifier, Assembly& assembly)
    : assembly_(assembly),
      identifier_(std::move(identifier)),
      clientShortName_(extractClientNameFromString(identifier_)) {
  if (assembly_.userDefaults && assembly_.userDefaults->boolForKey(kORVNoQueryCacheKey)) {
    cachingLog().info("query cache OFF for %@", identifier_);
  } else {
    cachingLog().debug("query cache ON for %@", identifier_);
    queryCache_ = std::make_unique<QueryCache>(assembly_);
  }
  if (assembly_.sharedSession) {
    sessionLog().info("Orvex is using shared instance of guid controller");
    guidController_ = assembly_.guidController;
    sessionManager_ = assembly_.clientSessionManager;
  } else {
    sessionLog().info("Orvex is using individual instance of guid controller %@", identifier_);
    guidController_ = std::make_shared<OrvexUserGUIDController>(assembly_);
    sessionManager_ =
        std::make_shared<ClientSessionManager>(assembly_, guidController_, identifier_);
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
      if (bag_) bag_ = ORVBag::initWithBag(*bag_, userAgent_);
      // Answers cached for the old user agent are not answers for the new one.
      if (queryCache_) queryCache_->removeAllObjects();
    }
    hasUserAgent = !userAgent_.empty();
  }
  if (!hasUserAgent) {
    reply(nullptr, bagError("no UserAgent"));
    return;
  }
  ensureBag([self = shared_from_this(), reply](bool haveBag) {
    reply(self->bag(), haveBag ? std::nullopt : std::optional(bagError("timeout")));
  });
}

void ClientState::ensureBag(BagContinuation continuation) {
  std::string agent;
  {
    std::unique_lock lock(mutex_);
    // Configure binds the user agent just after answering, so the client's first request may
    // come first: the configuration it was bound with already names the agent.
    if (userAgent_.empty() && configuration_) userAgent_ = configuration_->userAgent;
    if (userAgent_.empty() || bag_) {
      const bool haveBag = bag_ != nullptr;
      lock.unlock();
      continuation(haveBag);
      return;
    }
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
    auto view = ORVBag::initWithBag(*current, agent);
    {
      std::lock_guard lock(mutex_);
      bag_ = std::move(view);
    }
    continuation(true);
    return;
  }
  markNetworkRequest();
  // The observer was in place before the controller was asked, so a bag stored since then has
  // reached bag_ already, under the same lock that lists the waiter.
  auto waiter = std::make_shared<BagWaiter>(std::move(continuation));
  {
    std::unique_lock lock(mutex_);
    if (bag_) {
      lock.unlock();
      finishBagWait(*waiter, true);
      return;
    }
    bagWaiters_.push_back(waiter);
  }
  // The timer only hands the ending on to the pool.
  TimerHandle deadline = assembly_.clock->scheduleAfter(
      kBagWaitTimeout, [weakSelf = weak_from_this(), waiter, pool = assembly_.workerPool]() {
        pool->post([weakSelf, waiter] {
          if (auto self = weakSelf.lock()) {
            self->bagWaitTimedOut(waiter);
          } else {
            finishBagWait(*waiter, false);
          }
        });
      });
  std::lock_guard lock(mutex_);
  if (waiter->finished.load()) {
    deadline.cancel();
  } else {
    waiter->deadline = std::move(deadline);
  }
}

void ClientState::finishBagWait(BagWaiter& waiter, bool haveBag) {
  if (waiter.finished.exchange(true)) return;
  waiter.continuation(haveBag);
  waiter.continuation = nullptr;  // what it holds (a reply, the state) goes with it
}

void ClientState::bagWaitTimedOut(const std::shared_ptr<BagWaiter>& waiter) {
  bool haveBag = false;
  {
    std::lock_guard lock(mutex_);
    std::erase(bagWaiters_, waiter);
    haveBag = bag_ != nullptr;
  }
  finishBagWait(*waiter, haveBag);
}

void ClientState::bagChangeNotification(const Notification& notification) {
  // Either a bag or a failed fetch: both end every wait, the first with the bag.
  std::vector<std::shared_ptr<BagWaiter>> waiting;
  bool haveBag = false;
  {
    std::lock_guard lock(mutex_);
    if (auto newBag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
        newBag && *newBag) {
      bag_ = ORVBag::initWithBag(**newBag, userAgent_);
    }
    waiting.swap(bagWaiters_);
    for (const auto& waiter : waiting) waiter->deadline.cancel();
    haveBag = bag_ != nullptr;
  }
  // This runs inside the bag controller's store; the continuations may read the bag again.
  for (auto& waiter : waiting) {
    assembly_.workerPool->post([waiter, haveBag] { finishBagWait(*waiter, haveBag); });
  }
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

  auto start = makeStartNetworkFeedback(*request, "", kWarmTriggerEvent, kWarmEndpoint,
                                        assembly_.clock->monotonicNow());
  ClientSessionManager::addOrvexdFeedback(start, assembly_);

  Assembly& assembly = assembly_;
  auto task = assembly_.urlSession->dataTask(
      std::move(*request), [&assembly, start](HttpDataResult result) {
        const int64_t status = result.response ? result.response->statusCode : 0;
        searchLog().info("Status for warm request: (%li) error: (%@)", status,
                         result.error ? result.error->describe() : std::string("(null)"));
        auto end = std::make_shared<NBEndNetworkSearchFeedback>();
        end->timestamp = monotonicNanoseconds(assembly.clock->monotonicNow());
        end->uuid = start->uuid;
        end->responseSize = static_cast<int64_t>(result.data.size());
        end->statusCode = status;
        end->networkTimingData = result.timing;
        ClientSessionManager::addOrvexdFeedback(end, assembly);
      });
  task->resume();
  markNetworkRequest();
}

ORVReply ClientState::makeReply(const ORVRequest& request, const HttpRequest* httpRequest,
                                const HttpResponse* httpResponse) const {
  ORVReply reply;
  reply.scale = request.scale;
  if (request.verboseReply) {
    // D-Bus strings must be UTF-8, and a back-end may send any bytes in its headers: those that
    // are not UTF-8 are shown as U+FFFD rather than making the whole reply unsendable.
    const auto busHeaders = [](const auto& headers) {
      ORVHeaderList list;
      for (const auto& [name, value] : headers) {
        list.emplace_back(toValidUtf8(name), toValidUtf8(value));
      }
      return list;
    };
    if (httpRequest != nullptr) {
      reply.httpRequest = ORVHttpRequestInfo{toValidUtf8(httpRequest->url), httpRequest->method,
                                             busHeaders(httpRequest->headers)};
    }
    if (httpResponse != nullptr) {
      reply.httpResponse =
          ORVHttpResponseInfo{toValidUtf8(httpResponse->url), httpResponse->statusCode,
                              busHeaders(httpResponse->headers)};
    }
  }
  if (assembly_.requestFactory) {
    reply.geoSessionEntityString = assembly_.requestFactory->geoSessionEntityString();
  }
  return reply;
}

// The bag a query may be sent with; none (and the client answered, the skip recorded) when the
// bag could not be had or is disabled.
std::shared_ptr<const ORVBag> ClientState::bagForQuery(bool haveBag, const ORVRequest& request,
                                                       const QueryReply& reply,
                                                       const QueryFeedback& feedback,
                                                       const BagCheckLogs& logs) const {
  auto bag = this->bag();
  if (!haveBag || !bag) {
    reply(request.queryId, std::nullopt, bagError("timeout"));
    searchLog().error(logs.fetchFailed, request.queryString);
    feedback.recordSkip(ORVSkipSearchFeedback::kBagFetchFailed);
    return nullptr;
  }
  if (!bag->isEnabled()) {
    searchLog().debug(logs.disabled);
    reply(request.queryId, std::nullopt, std::nullopt);
    feedback.recordSkip(ORVSkipSearchFeedback::kBagDisabled);
    return nullptr;
  }
  return bag;
}

unsigned ClientState::fieldMask() const {
  return asciiLowercase(userAgent()).find("messages") != std::string::npos ? kORVFieldMaskNoLocation
                                                                           : 0;
}

QueryFeedback ClientState::feedbackFor(const ORVRequest& request) const {
  return QueryFeedback(assembly_.clock, sessionManager_, userAgent(), request);
}

void ClientState::send(const ORVRequest& request, std::optional<HttpRequest> httpRequest,
                       std::optional<std::string> input, std::shared_ptr<const ORVBag> bag,
                       QueryReply reply, bool logRequest) {
  if (httpRequest && logRequest) {
    searchLog().debug("request: %@ header: %@", httpRequest->url,
                      describeHeaders(httpRequest->headers));
  }
  if (!httpRequest) {
    // The bag names no endpoint for this kind of query.
    reply(request.queryId, std::nullopt,
          OrvexError(kORVErrorDomain, 500,
                     "no " + std::string(kindName(request.kind)) + " request could be made"));
    return;
  }
  NetworkQuery::start(shared_from_this(), assembly_, request, std::move(*httpRequest),
                      std::move(input), std::move(bag), std::move(reply));
}

void ClientState::noteSearch(const ORVRequest& request, bool hasReply) const {
  searchLog().log("session %@ performing query[%llu] %@, reply %@", identifier_,
                  static_cast<unsigned long long>(request.queryId), request.queryString,
                  std::string(hasReply ? "yes" : "(null)"));
  if (auto key = createCounterKey(clientShortName_, kORVCounterSuffixKeystrokes)) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
  }
}

void ClientState::search(const ORVRequest& request, QueryReply reply) {
  noteSearch(request, static_cast<bool>(reply));
  ensureBag([self = shared_from_this(), request, reply = std::move(reply)](bool haveBag) {
    self->searchWithBag(haveBag, request, reply);
  });
}

bool ClientState::searchFromCache(const ORVRequest& request, const QueryReply& reply) {
  if (!queryCache_ || !request.queryItems.empty()) return false;
  const auto bag = this->bag();
  if (!bag || !bag->isEnabled() ||
      utf16Length(request.queryString) < static_cast<uint64_t>(bag->minimumQueryLength())) {
    return false;
  }
  const auto cached = queryCache_->tryGetRequest(request);
  if (!cached) return false;
  noteSearch(request, static_cast<bool>(reply));
  answerFromCache(request, *cached, *bag, reply, feedbackFor(request));
  return true;
}

void ClientState::searchWithBag(bool haveBag, const ORVRequest& request, QueryReply reply) {
  const auto feedback = feedbackFor(request);
  auto bag = bagForQuery(
      haveBag, request, reply, feedback,
      {"Bag fetch failed, can't complete non-cached query %@.", "no search, bag disabled"});
  if (!bag) return;
  if (utf16Length(request.queryString) < static_cast<uint64_t>(bag->minimumQueryLength())) {
    searchLog().debug("query[%lld] input '%@' less than minQueryLength",
                      static_cast<long long>(request.queryId), request.queryString);
    reply(request.queryId, std::nullopt, std::nullopt);
    feedback.recordSkip(ORVSkipSearchFeedback::kLessThanMinimumQueryLength);
    return;
  }
  if (serveFromCache(request, *bag, reply, feedback)) return;

  searchLog().debug("Dispatching network request for (id, query): (%lld, %@)",
                    static_cast<long long>(request.queryId), request.queryString);
  auto httpRequest = assembly_.requestFactory->searchRequest(
      request, *bag, guidController_->currentUserGUID(), fieldMask());
  send(request, std::move(httpRequest), request.queryString, std::move(bag), std::move(reply),
       true);
}

bool ClientState::serveFromCache(const ORVRequest& request, const ORVBag& bag,
                                 const QueryReply& reply, const QueryFeedback& feedback) {
  if (!queryCache_ || !request.queryItems.empty()) return false;
  auto cached = queryCache_->getRequest(request);
  if (!cached) return false;
  answerFromCache(request, *cached, bag, reply, feedback);
  return true;
}

void ClientState::answerFromCache(const ORVRequest& request, const CachedResultSet& cached,
                                  const ORVBag& bag, const QueryReply& reply,
                                  const QueryFeedback& feedback) {
  ORVReply answer = makeReply(request, &cached.request(), nullptr);
  answer.rawResponse = cached.replyText();  // serialised when the entry was stored
  reply(request.queryId, std::move(answer), std::nullopt);
  if (auto key = createCounterKey(clientShortName_, kORVCounterSuffixOnDeviceCacheHits)) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
  }
  // The session manager drops records while the client's bag turns feedback off: the hit's is
  // not even handed over then, which spares a worker's wake-up on every keystroke.
  if (bag.feedbackEnabled()) feedback.recordCacheHit(cached.uuid().upperString());
}

void ClientState::cacheResponse(const std::shared_ptr<const nlohmann::json>& response,
                                std::string serialized, HttpRequest request,
                                const std::string& input, const std::string& uuid) {
  if (!queryCache_ || !response || !response->is_object()) return;
  if (auto status = response->find("status");
      status != response->end() && status->is_string() && *status == "ERROR") {
    return;
  }
  queryCache_->set(
      CachedResultSet(input, std::move(request), response,
                      Uuid::fromString(uuid).value_or(Uuid::random()), assembly_.clock->wallNow()),
      std::move(serialized));
}

void ClientState::sendWithEnabledBag(const EnabledBagQuery& kind, const ORVRequest& request,
                                     QueryReply reply, RequestMaker make) {
  searchLog().log(kind.openingLog, identifier_, std::string(reply ? "yes" : "(null)"));
  ensureBag([self = shared_from_this(), &kind, request, reply = std::move(reply),
             make = std::move(make)](bool haveBag) {
    auto bag = self->bagForQuery(haveBag, request, reply, self->feedbackFor(request), kind.bag);
    if (!bag) return;
    searchLog().debug(kind.dispatchLog);
    auto httpRequest = make(*bag, self->guidController_->currentUserGUID());
    self->send(request, std::move(httpRequest), request.queryString, std::move(bag), reply,
               kind.logRequest);
  });
}

void ClientState::zeroKeyword(const ORVRequest& request, QueryReply reply) {
  static constexpr EnabledBagQuery kZeroKeyword{
      "session %@ performing zkw query, reply %@",
      {"Bag fetch failed, can't complete non-cached zkw query.", "no zkw, bag disabled"},
      "Dispatching network request for zkw query",
      false};
  sendWithEnabledBag(kZeroKeyword, request, std::move(reply),
                     [this, request](const ORVBag& bag, const Uuid& guid) {
                       return assembly_.requestFactory->zeroKeywordRequest(request, bag, guid,
                                                                           fieldMask());
                     });
}

void ClientState::lookup(const ORVRequest& request, QueryReply reply) {
  static constexpr EnabledBagQuery kLookup{
      "session %@ performing lookup query, reply %@",
      {"Bag fetch failed, can't complete non-cached lookup query.", "no lookup, bag disabled"},
      "Dispatching network request for lookup query",
      true};
  sendWithEnabledBag(kLookup, request, std::move(reply),
                     [this, request](const ORVBag& bag, const Uuid& guid) {
                       return assembly_.requestFactory->lookupRequest(request, bag, guid);
                     });
}

void ClientState::moreResults(const ORVRequest& request, QueryReply reply) {
  // Sent with whatever bag the state holds: the answer it follows was made with it.
  auto bag = this->bag();
  std::optional<HttpRequest> httpRequest;
  if (bag) {
    httpRequest = assembly_.requestFactory->moreResultsRequest(
        request, *bag, guidController_->currentUserGUID(), fieldMask());
  }
  // The start record's input is the query the more results are for: the "q" of their URL.
  std::optional<std::string> input;
  if (auto url = OrvexURLRequestBuilder::requestBuilderWithURL(request.moreResultsURL)) {
    input = url->queryItemValue("q");
  }
  send(request, std::move(httpRequest), std::move(input), std::move(bag), std::move(reply), true);
}

void ClientState::card(const ORVRequest& request, QueryReply reply) {
  auto bag = this->bag();
  std::optional<HttpRequest> httpRequest;
  if (bag) {
    httpRequest =
        assembly_.requestFactory->cardRequest(request, *bag, guidController_->currentUserGUID());
  }
  send(request, std::move(httpRequest), request.queryString, std::move(bag), std::move(reply),
       false);
}

// Flights come from the data file, read afresh for each query, and are answered as an array.
void ClientState::flightSearch(const ORVRequest& request, const QueryReply& reply) {
  answerFlights(
      request,
      flightsMatchingQuery(loadFlightDebugData(assembly_.userDefaults.get()), request.flightQuery),
      reply);
}

void ClientState::flightLookup(const ORVRequest& request, const QueryReply& reply) {
  answerFlights(
      request,
      flightsWithIdentifier(loadFlightDebugData(assembly_.userDefaults.get()), request.flightId),
      reply);
}

void ClientState::answerFlights(const ORVRequest& request, const nlohmann::json& flights,
                                const QueryReply& reply) {
  ORVReply answer;
  answer.scale = request.scale;
  answer.rawResponse = jsonTextForBus(flights.dump());
  reply(request.queryId, std::move(answer), std::nullopt);
}

}  // namespace orvex
