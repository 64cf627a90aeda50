#include "orvexd/feedback/client_session_manager.h"

#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/client_session_shared.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/background_flusher.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orvex_session_feedback.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }

uint64_t nowNanoseconds(const Clock& clock) {
  const auto count =
      std::chrono::duration_cast<std::chrono::nanoseconds>(clock.monotonicNow().time_since_epoch())
          .count();
  return count < 0 ? 0 : static_cast<uint64_t>(count);
}

// Result and card engagements: past the soft limit, these end the session.
bool suggestsSessionEnd(NBFeedbackType type) {
  return type == NBFeedbackType::kResultEngagement || type == NBFeedbackType::kCardEngagement;
}

}  // namespace

ClientSessionManager::ClientSessionManager(Assembly& assembly,
                                           std::shared_ptr<GUIDController> guidController,
                                           std::string identifier)
    : assembly_(assembly),
      guidController_(std::move(guidController)),
      identifier_(std::move(identifier)),
      shared_(assembly.sharedSession),
      sessionQueue_("com.zelmor.orvexd.clientSessionManagerQueue", *assembly.workerPool,
                    *assembly.clock) {
  if (shared_) {
    sessionLog().info("Orvex is using shared session for all clients %@", identifier_);
  } else {
    sessionLog().info("Orvex is using individual session for clients %@", identifier_);
  }
}

std::string ClientSessionManager::orvexdUserAgent() {
  static const std::string userAgent = kORVOrvexdNameVersion;
  return userAgent;
}

void ClientSessionManager::reportErrorAsOrvexdFeedback(const OrvexError& error,
                                                       Assembly& assembly) {
  auto record = std::make_shared<NBErrorFeedback>();
  record->timestamp = nowNanoseconds(*assembly.clock);
  record->error = error;
  std::optional<std::string> guid;
  if (assembly.guidController) guid = assembly.guidController->currentUserGUID().upperString();
  if (assembly.clientSessionManager) {
    assembly.clientSessionManager->addOrvexFeedback(
        OrvexFeedback::initWithFeedback(record, 0, std::move(guid), orvexdUserAgent()));
  }
}

void ClientSessionManager::addOrvexdFeedback(FeedbackRecordPtr record, Assembly& assembly) {
  if (!assembly.clientSessionManager) return;
  assembly.clientSessionManager->addOrvexFeedback(
      OrvexFeedback::initWithFeedback(std::move(record), 0, std::nullopt, orvexdUserAgent()));
}

std::string ClientSessionManager::currentGuidString() {
  return guidController_ ? guidController_->currentUserGUID().upperString() : std::string();
}

void ClientSessionManager::addOrvexFeedback(OrvexFeedback feedback) {
  sessionQueue_.async([weak = weak_from_this(), feedback = std::move(feedback)]() mutable {
    if (auto self = weak.lock()) self->_addOrvexFeedback(std::move(feedback));
  });
}

void ClientSessionManager::_addOrvexFeedback(OrvexFeedback feedback) {
  sessionQueue_.assertCurrent("_addOrvexFeedback");
  if (assembly_.bagController) {
    if (auto bag = assembly_.bagController->cachedBagState()) {
      auto agentBag = ORVBag::initWithBag(*bag, feedback.userAgent());
      if (agentBag && !agentBag->feedbackEnabled()) return;
    }
  }
  if (guidController_) feedback.setUserGuid(currentGuidString());

  const MonotonicTime now = assembly_.clock->monotonicNow();
  if (hasOpenSession(currentState_) && session_->userGuid() != feedback.userGuid()) {
    _updateState(Event::kGuidChanged, &feedback, nullptr);
  } else if (isPastSoftLimit(currentState_) && suggestsSessionEnd(feedback.type())) {
    _updateState(Event::kEngagementPastSoftLimit, &feedback, nullptr);
  } else if (isPastSoftLimit(currentState_) && expirationTime_ <= now) {
    _updateState(Event::kFeedbackAfterIdle, &feedback, nullptr);
  } else {
    _updateState(Event::kFeedback, &feedback, nullptr);
  }
  expirationTime_ = deadlineAfter(now, kIdleTime);
}

void ClientSessionManager::flushSession(std::function<void()> callback) {
  sessionQueue_.async([weak = weak_from_this(), callback = std::move(callback)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    self->_updateState(Event::kExternalFlush, nullptr, std::move(callback));
  });
}

void ClientSessionManager::hintFlush() {
  sessionQueue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_updateState(Event::kFlushHint, nullptr, nullptr);
  });
}

void ClientSessionManager::flushSessionInvalidationWithAgent(
    std::string agent, std::function<void(bool flushed)> callback) {
  if (shared_) {
    auto record = std::make_shared<OrvexConnectionInvalidated>();
    record->timestamp = nowNanoseconds(*assembly_.clock);
    addOrvexFeedback(OrvexFeedback::initWithFeedback(record, 0, std::nullopt, std::move(agent)));
    if (callback) callback(false);
    return;
  }
  flushSession([callback = std::move(callback)] {
    if (callback) callback(true);
  });
}

std::vector<OrvexFeedback> ClientSessionManager::currentFeedbacksWithRelativeTimestamp() {
  auto current = session();
  return current ? current->feedbacksWithRelativeTimestamp(kFeedbackReadBudget)
                 : std::vector<OrvexFeedback>();
}

std::shared_ptr<FeedbackSession> ClientSessionManager::session() {
  if (sessionQueue_.isCurrent()) return session_;  // a callback of the manager's own
  return sessionQueue_.syncResult([this] { return session_; }).value_or(nullptr);
}

ClientSessionManager::State ClientSessionManager::currentState() {
  if (sessionQueue_.isCurrent()) return currentState_;
  return sessionQueue_.syncResult([this] { return currentState_; }).value_or(State::kNoSession);
}

void ClientSessionManager::_updateState(Event event, const OrvexFeedback* feedback,
                                        std::function<void()> callback) {
  sessionQueue_.assertCurrent("_updateState");
  switch (event) {
    case Event::kFeedback:
      if (hasOpenSession(currentState_)) {
        _addToSession(*feedback);
      } else {
        _setNewSession(*feedback);
        currentState_ = State::kOpen;
      }
      break;
    case Event::kSoftLimitReached:
      if (currentState_ == State::kOpen) currentState_ = State::kPastSoftLimit;
      break;
    case Event::kMaxTimerExpired:
      if (isPastSoftLimit(currentState_)) {
        _flushSessionWithReason(kOrvexSessionEndMaxSessionTime, nullptr);
        sessionLog().info("session flushed because max timer expired %@", identifier_);
        currentState_ = State::kNoSession;
      }
      break;
    case Event::kExternalFlush:
      // Without a session the callback still runs: the caller learns nothing is left to flush.
      _flushSessionWithReason(kOrvexSessionEndExternalRequest, std::move(callback));
      currentState_ = State::kNoSession;
      break;
    case Event::kFeedbackAfterIdle:
      if (isPastSoftLimit(currentState_)) {
        _flushSessionWithReason(kOrvexSessionEndSessionIdle, nullptr);
        sessionLog().info(
            "session flushed because soft limit reached and idle time was beyond %ld %@",
            static_cast<long>(kIdleTime / std::chrono::seconds(1)), identifier_);
        OrvexFeedback restamped = *feedback;
        if (guidController_) {
          guidController_->reset();
          restamped.setUserGuid(currentGuidString());
        }
        _setNewSession(restamped);
        currentState_ = State::kOpen;
      }
      break;
    case Event::kGuidChanged:
      if (hasOpenSession(currentState_)) {
        _flushSessionWithReason(kOrvexSessionEndGuidChanged, nullptr);
        sessionLog().info("session flushed because guid changed %@", identifier_);
        _setNewSession(*feedback);
        currentState_ = State::kOpen;
      }
      break;
    case Event::kEngagementPastSoftLimit:
      if (isPastSoftLimit(currentState_)) {
        _addToSession(*feedback);  // may go to a new session, which it then ends the same way
        _flushSessionWithReason(kOrvexSessionEndEngagementReceived, nullptr);
        sessionLog().info(
            "session flushed because soft limit reached and sentinel feedback received");
        if (guidController_) guidController_->reset();
        currentState_ = State::kNoSession;
      }
      break;
    case Event::kFlushHint:
      if (assembly_.backgroundFlusher) assembly_.backgroundFlusher->insertFlushActivity(nullptr);
      break;
  }
}

void ClientSessionManager::_addToSession(const OrvexFeedback& feedback) {
  sessionQueue_.assertCurrent("_addToSession");
  if (session_->addFeedback(feedback) != FeedbackSession::AddResult::kFull) return;
  // The session's file is full: the session ends and the next one goes on with the record.
  _flushSessionWithReason(kOrvexSessionEndFileSizeLimit, nullptr);
  sessionLog().info("session flushed because its file reached the size limit %@", identifier_);
  _setNewSession(feedback);
  currentState_ = State::kOpen;
}

void ClientSessionManager::_setNewSession(const OrvexFeedback& feedback) {
  sessionQueue_.assertCurrent("_setNewSession");
  ++sessionCounter_;
  if (shared_) {
    session_ = std::make_shared<ClientSessionShared>(assembly_, feedback, flushReason_);
  } else {
    session_ = ClientSession::initWithAssembly(assembly_, feedback, flushReason_);
  }
  sessionLog().info("new session id %ld %@", static_cast<long>(sessionCounter_), identifier_);
  softLimitTimer_.arm(kSoftLimit, weak_from_this(), [this, counter = sessionCounter_] {
    sessionLog().info("soft limit reached expected %llu current %llu %@",
                      static_cast<unsigned long long>(counter),
                      static_cast<unsigned long long>(sessionCounter_), identifier_);
    _onUserGuidSoftLimitReached();
  });
}

void ClientSessionManager::_onUserGuidSoftLimitReached() {
  sessionQueue_.assertCurrent("_onUserGuidSoftLimitReached");
  _updateState(Event::kSoftLimitReached, nullptr, nullptr);
  sessionLog().info("soft limit reached, maxtimer session id %llu %@",
                    static_cast<unsigned long long>(sessionCounter_), identifier_);
  maxTimer_.arm(kMaxTimeAfterSoftLimit, weak_from_this(), [this, counter = sessionCounter_] {
    sessionLog().info("max timer expired expected %llu current %llu",
                      static_cast<unsigned long long>(counter),
                      static_cast<unsigned long long>(sessionCounter_));
    _updateState(Event::kMaxTimerExpired, nullptr, nullptr);
  });
}

void ClientSessionManager::_flushSessionWithReason(uint32_t reason,
                                                   std::function<void()> callback) {
  sessionQueue_.assertCurrent("_flushSessionWithReason");
  if (!session_) {
    if (callback) callback();
    return;
  }
  // The session's timers end with it.
  softLimitTimer_.cancel();
  maxTimer_.cancel();
  flushReason_ = reason;
  const uint64_t now = nowNanoseconds(*assembly_.clock);
  session_->enumerateSessions([&](ClientSession& session, bool last) {
    session.addSessionEnd(reason, now);
    session.sessionComplete();
    if (last && callback) callback();
  });
  session_.reset();
}

}  // namespace orvex
