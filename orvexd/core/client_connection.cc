#include "orvexd/core/client_connection.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/client/dbus_forms.h"
#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/client_session_manager.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/flusher_listener.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/input_defaults.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/tracing_setup.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }
const OrvexLog& feedbackLog() { return OrvexLogForCategory(kOrvexLogFeedback); }
const OrvexLog& bagLog() { return OrvexLogForCategory(kOrvexLogBag); }
const OrvexLog& defaultLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

// Search-view appearances that mean the user is about to type: today view (2), keyboard
// shortcut (5), menu click (6), tap to input (9), new window (10), click (11), pull down on the
// home screen (22), notification centre (23) and partial pull down (24).
bool appearanceWarmsConnection(uint32_t event) {
  switch (event) {
    case 2:
    case 5:
    case 6:
    case 9:
    case 10:
    case 11:
    case 22:
    case 23:
    case 24:
      return true;
    default:
      return false;
  }
}

// Wraps `reply` so that the end trace code fires when it is answered.
QueryReply traced(TraceCode end, QueryReply reply) {
  return [end, reply = std::move(reply)](int64_t queryId, std::optional<ORVReply> answer,
                                         std::optional<OrvexError> error) {
    ORVTrace(end, static_cast<uint64_t>(queryId));
    if (reply) reply(queryId, std::move(answer), std::move(error));
  };
}

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::create(Assembly& assembly,
                                                           std::shared_ptr<ClientIpc> remoteObject,
                                                           ClientPeer peer,
                                                           std::function<void()> invalidate,
                                                           WorkerPool& callPool) {
  return std::shared_ptr<ClientConnection>(new ClientConnection(
      assembly, std::move(remoteObject), std::move(peer), std::move(invalidate), callPool));
}

ClientConnection::ClientConnection(Assembly& assembly, std::shared_ptr<ClientIpc> remoteObject,
                                   ClientPeer peer, std::function<void()> invalidate,
                                   WorkerPool& callPool)
    : assembly_(assembly),
      clientStateManager_(assembly.clientStateManager),
      remoteObject_(std::move(remoteObject)),
      peer_(std::move(peer)),
      invalidate_(std::move(invalidate)),
      callPool_(callPool),
      callQueue_("com.zelmor.orvexd.clientconnection", callPool, *assembly.clock) {}

ClientConnection::~ClientConnection() = default;

std::optional<ORVSessionConfiguration> ClientConnection::configuration() const {
  std::lock_guard lock(mutex_);
  return configuration_;
}

std::shared_ptr<ClientState> ClientConnection::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void ClientConnection::dropRequest() { ensureState(); }

void ClientConnection::ensureState() {
  const auto configuration = this->configuration();
  if (!configuration) {
    sessionLog().fault("configuration must not be nil");
    return;
  }
  if (!configuration->isValid()) {
    sessionLog().fault("configuration requires identifier and agent");
    return;
  }
  if (configuration->hasControlCharacters()) {
    sessionLog().fault("configuration has a control character in its identifier or agent");
    return;
  }
  if (auto bound = state()) {
    if (bound->identifier() != configuration->identifier) {
      sessionLog().fault("session identifier must match");
    }
    return;
  }
  if (!clientStateManager_) return;
  auto state = clientStateManager_->stateForClientIdentifier(configuration->identifier);
  if (!state) return;
  state->setConfiguration(*configuration);
  std::lock_guard lock(mutex_);
  if (!state_) state_ = std::move(state);
}

void ClientConnection::configure(ORVSessionConfiguration configuration, ConfigureReply reply) {
  sessionLog().log("client configuration %@", "{identifier = " + configuration.identifier +
                                                  ", userAgent = " + configuration.userAgent + "}");
  {
    std::lock_guard lock(mutex_);
    configuration_ = configuration;
  }
  ensureState();
  auto state = this->state();
  if (!state) {
    ClientSessionManager::reportErrorAsOrvexdFeedback(
        OrvexError(kORVErrorDomain, 500, "invalid configuration"), assembly_);
    sessionLog().fault("invalid configuration, closing connection");
    if (invalidate_) invalidate_();
    reply(std::nullopt);
    return;
  }
  // The endpoint does not wait for the bag, which may take a second to arrive.
  reply(clientStateManager_->endpoint());
  std::weak_ptr<ClientConnection> weakSelf = weak_from_this();
  state->bag(configuration.userAgent, [weakSelf, userAgent = configuration.userAgent](
                                          std::shared_ptr<const ORVBag> bag,
                                          std::optional<OrvexError> error) {
    auto self = weakSelf.lock();
    if (!self) return;
    if (!bag || !bag->feedbackEnabled()) {
      OrvexLogForCategory(kOrvexLogFeedback)
          .info("feedback collection disabled in bag for user agent %@", userAgent);
    }
    bagLog().info("sending bag with version: %@ to client: %@ error: %@",
                  bag ? bag->version() : std::string("(null)"), userAgent,
                  error ? error->describe() : std::string("(null)"));
    // Saved before the client hears of its bag, so that its next call finds it saved.
    if (self->clientStateManager_) self->clientStateManager_->saveState();
    self->remoteObject_->bagDidLoad(bag, error);
    {
      std::lock_guard lock(self->mutex_);
      if (!self->bagObserver_.active() && !self->invalidated_) {
        self->bagObserver_ = self->assembly_.notificationCenter->addObserver(
            kORVBagChangeNotification, nullptr, [weakSelf](const Notification& notification) {
              if (auto connection = weakSelf.lock())
                connection->bagChangeNotification(notification);
            });
      }
    }
  });
}

void ClientConnection::bagChangeNotification(const Notification& notification) {
  const auto* bag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
  bagLog().info("bag change notification: %@",
                bag && *bag ? (*bag)->version() : std::string("(null)"));
  if (bag && *bag) remoteObject_->bagDidLoad(*bag, std::nullopt);
}

void ClientConnection::invalidated() {
  std::lock_guard lock(mutex_);
  invalidated_ = true;
  bagObserver_.reset();
}

void ClientConnection::bag(BagReply reply) {
  ensureState();
  auto state = this->state();
  if (!state) {
    reply(nullptr, OrvexError(kORVErrorDomain, 500, "client state nil"));
    return;
  }
  const auto configuration = this->configuration();
  state->bag(configuration ? configuration->userAgent : std::string(), reply);
}

void ClientConnection::fillRequestDefaults(ORVRequest& request) const {
  if (request.keyboardInputMode.empty()) {
    request.keyboardInputMode = defaultKeyboardInputMode(*assembly_.userDefaults);
    defaultLog().error("keyboardInputMode property not set, using %@", request.keyboardInputMode);
  }
  if (request.scale == 0.0) {
    request.scale = mainScreenScale(*assembly_.userDefaults).value_or(1.0);
    defaultLog().error("request scale property not set, using %f", request.scale);
  }
}

void ClientConnection::request(ORVRequest request, QueryReply reply) {
  ensureState();
  fillRequestDefaults(request);
  auto state = this->state();
  if (!state) {
    if (reply) {
      reply(request.queryId, std::nullopt, OrvexError(kORVErrorDomain, 500, "client state nil"));
    }
    return;
  }
  // Fires `start` now and `end` when the request is answered.
  const auto trace = [&](TraceCode start, TraceCode end) {
    ORVTrace(start, static_cast<uint64_t>(request.queryId));
    return traced(end, std::move(reply));
  };
  switch (request.kind) {
    case ORVRequestKind::kSearch:
      search(request, trace(TraceCode::kSearchStart, TraceCode::kSearchEnd));
      break;
    case ORVRequestKind::kMoreResults:
      state->moreResults(request, std::move(reply));
      break;
    case ORVRequestKind::kCard:
      state->card(request, trace(TraceCode::kCardStart, TraceCode::kCardEnd));
      break;
    case ORVRequestKind::kZeroKeyword:
      state->zeroKeyword(request, trace(TraceCode::kZeroKeywordStart, TraceCode::kZeroKeywordEnd));
      break;
    case ORVRequestKind::kLookup:
      state->lookup(request, trace(TraceCode::kLookupStart, TraceCode::kLookupEnd));
      break;
    case ORVRequestKind::kFlightLookup:
      state->flightLookup(request, std::move(reply));
      break;
    case ORVRequestKind::kFlightSearch:
      state->flightSearch(request, std::move(reply));
      break;
  }
}

bool ClientConnection::requestFromCache(const ORVRequest& request, const QueryReply& reply) {
  if (request.kind != ORVRequestKind::kSearch || request.keyboardInputMode.empty() ||
      request.scale == 0.0) {
    return false;
  }
  bool answered = false;
  const bool ran = callQueue_.trySync([&] {
    auto state = this->state();
    // Only the connection's queue moves currentQueryId_, and this job holds it.
    if (!state || request.queryId <= currentQueryId_.load()) return;
    answered = state->searchFromCache(request, [&](int64_t queryId, std::optional<ORVReply> answer,
                                                   std::optional<OrvexError> error) {
      currentQueryId_.store(queryId);
      ORVTrace(TraceCode::kSearchStart, static_cast<uint64_t>(queryId));
      if (reply) reply(queryId, std::move(answer), std::move(error));
      ORVTrace(TraceCode::kSearchEnd, static_cast<uint64_t>(queryId));
    });
  });
  return ran && answered;
}

void ClientConnection::search(const ORVRequest& request, QueryReply reply) {
  const int64_t queryId = request.queryId;
  int64_t current = currentQueryId_.load();
  if (queryId <= current || !currentQueryId_.compare_exchange_strong(current, queryId)) {
    reply(queryId, std::nullopt, std::nullopt);
    return;
  }
  std::weak_ptr<ClientConnection> weakSelf = weak_from_this();
  state()->search(request, [weakSelf, reply = std::move(reply)](int64_t answeredId,
                                                                std::optional<ORVReply> answer,
                                                                std::optional<OrvexError> error) {
    auto self = weakSelf.lock();
    if (!self) return;
    if (self->currentQueryId_.load() > answeredId) {
      reply(answeredId, std::nullopt, std::nullopt);
    } else {
      reply(answeredId, std::move(answer), std::move(error));
    }
  });
}

void ClientConnection::reportEvent(const std::string&, int64_t queryId,
                                   FeedbackRecordPtr feedback) {
  ORVTrace(TraceCode::kFeedbackStart, static_cast<uint64_t>(queryId));
  reportEvent(std::move(feedback), queryId);
  ORVTrace(TraceCode::kFeedbackEnd, static_cast<uint64_t>(queryId));
}

void ClientConnection::reportEvent(FeedbackRecordPtr feedback, int64_t queryId) {
  auto state = this->state();
  if (!state) {
    reportErrorSession("client state nil");
    feedbackLog().error("state must not be nil");
    return;
  }
  if (const auto* custom = dynamic_cast<const NBCustomFeedback*>(feedback.get())) {
    handleCustomFeedback(*custom, feedback, queryId, [] {
      OrvexLogForCategory(kOrvexLogFlusher).debug("flushed custom feedback");
    });
    return;
  }
  if (const auto* appear = dynamic_cast<const NBSearchViewAppearFeedback*>(feedback.get());
      appear != nullptr && !appear->onLockScreen &&
      appearanceWarmsConnection(appear->triggerEvent)) {
    state->warm();
  }
  auto sessionManager = state->sessionManager();
  if (!sessionManager) {
    reportErrorSession("session manager nil");
    feedbackLog().error("session manager nil");
    return;
  }
  if (const auto* engagement = dynamic_cast<const NBResultEngagementFeedback*>(feedback.get());
      engagement != nullptr && engagement->result) {
    if (engagement->result->topHit != 0) {
      if (auto key = createCounterKey(state->clientShortName(), kORVCounterSuffixTopHitEngagements))
        OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
    }
    if (engagement->result->type == 1) {
      if (auto key = createCounterKey(state->clientShortName(), kORVCounterSuffixOrvexEngagements))
        OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
    }
  }
  const uint64_t clientQueryId = feedback->referencedClientQueryId();
  auto envelope = OrvexFeedback::initWithFeedback(std::move(feedback), queryId, std::nullopt,
                                                  state->userAgent(), clientQueryId);
  // A diagnostic tool watching the records sees each as it arrives.
  if (assembly_.flusherIpcListener) {
    assembly_.flusherIpcListener->sendDataToReceivingStreamListener(envelope);
  }
  sessionManager->addOrvexFeedback(std::move(envelope));
}

void ClientConnection::feedback(const std::string&, FeedbackReply reply) {
  ensureState();
  auto state = this->state();
  auto sessionManager = state ? state->sessionManager() : nullptr;
  if (!reply) return;
  auto feedbacks = sessionManager ? sessionManager->currentFeedbacksWithRelativeTimestamp()
                                  : std::vector<OrvexFeedback>();
  // The records are in the session once the manager's queue has taken them, but their writes
  // to the session file only run later, on the storage's queue. The answer waits for those
  // writes, so a client never sees a record that a kill of the daemon right after could lose.
  if (assembly_.persistentStorage) {
    assembly_.persistentStorage->afterPendingWrites(
        [reply = std::move(reply), feedbacks = std::move(feedbacks)]() mutable {
          reply(std::move(feedbacks), std::nullopt);
        });
    return;
  }
  reply(std::move(feedbacks), std::nullopt);
}

void ClientConnection::listenToFlusher(std::function<void(std::string)> reply) {
  ensureState();
  if (reply) reply(kOrvexFlusherPath);
}

void ClientConnection::listSessions(std::function<void(std::vector<ClientSessionEntry>)> reply) {
  ensureState();
  if (reply) reply(clientStateManager_->sessions());
}

void ClientConnection::fileHandleAndAttributesForResource(const std::string& identifier,
                                                          FileHandleReply reply) {
  ensureState();
  OrvexError error(kORVErrorDomain, 500, "resource files are not available");
  ResourceFileAttributes attributes;
  if (assembly_.downloadManager) {
    if (auto fd =
            assembly_.downloadManager->fileHandleForResource(identifier, &attributes, &error)) {
      reply(std::move(*fd), attributes, std::nullopt);
      return;
    }
  }
  OrvexLogForCategory(kOrvexLogDownloadManager)
      .info("no resource file for a client: %@", error.reason);
  reply(UniqueFd(), std::nullopt, std::move(error));
}

void ClientConnection::flushSessionInvalidation(std::function<void(bool)> callback) {
  auto state = this->state();
  auto sessionManager = state ? state->sessionManager() : nullptr;
  if (!sessionManager) {
    callback(false);
    return;
  }
  sessionManager->flushSessionInvalidationWithAgent(state->userAgent(), std::move(callback));
}

void ClientConnection::flushSession(std::function<void()> completion) {
  auto state = this->state();
  auto sessionManager = state ? state->sessionManager() : nullptr;
  if (!sessionManager) {
    completion();
    return;
  }
  sessionManager->flushSession(std::move(completion));
}

void ClientConnection::reportErrorSession(const std::string& reason) {
  ClientSession::createFeedbackSessionFromError(OrvexError(kORVErrorDomain, 500, reason), assembly_)
      ->sessionComplete();
}

void ClientConnection::handleCustomFeedback(const NBCustomFeedback& custom,
                                            FeedbackRecordPtr feedback, int64_t queryId,
                                            std::function<void()> callback) {
  switch (custom.customType) {
    case 1:
    case 3: {
      auto state = this->state();
      ClientSession::initWithAssembly(
          assembly_, OrvexFeedback::initWithFeedback(std::move(feedback), queryId, std::nullopt,
                                                     state ? state->userAgent() : std::string()))
          ->sessionComplete();
      callback();
      break;
    }
    case 2:
      // Crowdsourcing records are uploaded on their own, as the client's JSON object: they wait
      // on disk for that upload.
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterDPSubmit);
      if (assembly_.persistentStorage) {
        assembly_.persistentStorage->keepCrowdsourcingRecord(custom.jsonFeedback.dump());
      }
      callback();
      break;
    default:
      break;
  }
}

}  // namespace orvex
