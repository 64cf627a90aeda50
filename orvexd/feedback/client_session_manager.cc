#include "orvexd/feedback/client_session_manager.h"

#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/client_session_shared.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_constants.h"
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
  _listenForMemoryPressure();
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
      auto agentBag = ORVBag::initWithDictionary(bag->rawBag(), feedback.userAgent());
      if (agentBag && !agentBag->feedbackEnabled()) return;
    }
  }
  if (guidController_) feedback.setUserGuid(currentGuidString());

  const MonotonicTime now = assembly_.clock->monotonicNow();
  if (currentState_ != kStateNoSession && session_ && session_->userGuid() != feedback.userGuid()) {
    _updateState(kEventGuidChanged, &feedback, nullptr);
  } else if ((currentState_ == kStatePastSoftLimit || currentState_ == kStatePastSoftLimitAlt) &&
             suggestsSessionEnd(feedback.type())) {
    _updateState(kEventSentinelFeedback, &feedback, nullptr);
  } else if ((currentState_ == kStatePastSoftLimit || currentState_ == kStatePastSoftLimitAlt) &&
             expirationTime_ <= now) {
    _updateState(kEventFeedbackAfterIdle, &feedback, nullptr);
  } else {
    _updateState(kEventFeedback, &feedback, nullptr);
  }
  expirationTime_ = deadlineAfter(now, kIdleTime);
}

void ClientSessionManager::flushSession(std::function<void()> callback) {
  sessionQueue_.async([weak = weak_from_this(), callback = std::move(callback)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    self->_updateState(kEventExternalFlush, nullptr, std::move(callback));
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
  return current ? current->feedbacksWithRelativeTimestamp() : std::vector<OrvexFeedback>();
}

std::shared_ptr<FeedbackSession> ClientSessionManager::session() {
  if (sessionQueue_.isCurrent()) return session_;  // a callback of the manager's own
  return sessionQueue_.syncResult([this] { return session_; }).value_or(nullptr);
}

unsigned ClientSessionManager::currentState() {
  if (sessionQueue_.isCurrent()) return currentState_;
  return sessionQueue_.syncResult([this] { return currentState_; }).value_or(kStateNoSession);
}

void ClientSessionManager::_updateState(unsigned event, const OrvexFeedback* feedback,
                                        std::function<void()> callback) {
  sessionQueue_.assertCurrent("_updateState");
  const bool open = currentState_ == kStateOpen || currentState_ == kStatePastSoftLimit;
  const bool pastSoftLimit = currentState_ == kStatePastSoftLimit;
  switch (event) {
    case kEventFeedback:
      if (open && session_) {
        session_->addFeedback(*feedback);
      } else if (currentState_ == kStateNoSession) {
        _setNewSession(*feedback);
        currentState_ = kStateOpen;
      } else {
        sessionLog().info("Avoided adding feedback in state %tu", size_t{currentState_});
      }
      break;
    case kEventSoftLimitReached:
      if (currentState_ == kStateOpen) currentState_ = kStatePastSoftLimit;
      break;
    case kEventMaxTimerExpired:
      if (pastSoftLimit) {
        _flushSessionWithReason(kOrvexSessionEndMaxSessionTime, nullptr);
        sessionLog().info("session flushed because max timer expired %@", identifier_);
        currentState_ = kStateNoSession;
      }
      break;
    case kEventExternalFlush:
      if (currentState_ < kStatePastSoftLimitAlt) {
        _flushSessionWithReason(kOrvexSessionEndExternalRequest, std::move(callback));
        currentState_ = kStateNoSession;
      } else if (callback) {
        callback();  // the caller still learns that nothing is left to flush
      }
      break;
    case kEventFlushHint:
    case kEventFlushHintAlt:
      _scheduleFlushActivity();
      break;
    case kEventCriticalMemory:
      _flushSessionWithReason(kOrvexSessionEndCriticalMemory, nullptr);
      sessionLog().info("session flushed because of critical memory");
      _scheduleFlushActivity();
      currentState_ = kStateNoSession;
      break;
    case kEventFeedbackAfterIdle:
      if (pastSoftLimit) {
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
        currentState_ = kStateOpen;
      }
      break;
    case kEventGuidChanged:
      if (currentState_ < kStateNoSession) {
        _flushSessionWithReason(kOrvexSessionEndGuidChanged, nullptr);
        sessionLog().info("session flushed because guid changed %@", identifier_);
        _setNewSession(*feedback);
        currentState_ = kStateOpen;
      }
      break;
    case kEventSentinelFeedback:
      if (pastSoftLimit && session_) {
        session_->addFeedback(*feedback);
        _flushSessionWithReason(kOrvexSessionEndEngagementReceived, nullptr);
        sessionLog().info(
            "session flushed because soft limit reached and sentinel feedback received");
        if (guidController_) guidController_->reset();
        currentState_ = kStateNoSession;
      }
      break;
    default:  // 4, and 11 and above: nothing sends them
      sessionLog().info("External event received %tu", size_t{event});
      break;
  }
}

void ClientSessionManager::_scheduleFlushActivity() {
  // Uploads are driven by the background activities, which the Assembly does not hold yet; a
  // flush hint therefore changes nothing until they do.
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
  sessionQueue_.after(kSoftLimit, [weak = weak_from_this(), counter = sessionCounter_] {
    auto self = weak.lock();
    if (!self || counter != self->sessionCounter_) return;
    sessionLog().info("soft limit reached expected %llu current %llu %@",
                      static_cast<unsigned long long>(counter),
                      static_cast<unsigned long long>(self->sessionCounter_), self->identifier_);
    self->_onUserGuidSoftLimitReached();
  });
}

void ClientSessionManager::_onUserGuidSoftLimitReached() {
  sessionQueue_.assertCurrent("_onUserGuidSoftLimitReached");
  if (!session_) return;
  _updateState(kEventSoftLimitReached, nullptr, nullptr);
  sessionLog().info("soft limit reached, maxtimer session id %llu %@",
                    static_cast<unsigned long long>(sessionCounter_), identifier_);
  sessionQueue_.after(kMaxTimeAfterSoftLimit, [weak = weak_from_this(), counter = sessionCounter_] {
    auto self = weak.lock();
    if (!self) return;
    sessionLog().info("max timer expired expected %llu current %llu",
                      static_cast<unsigned long long>(counter),
                      static_cast<unsigned long long>(self->sessionCounter_));
    if (counter == self->sessionCounter_ && self->session_) {
      self->_updateState(kEventMaxTimerExpired, nullptr, nullptr);
    }
  });
}

void ClientSessionManager::_flushSessionWithReason(uint32_t reason,
                                                   std::function<void()> callback) {
  sessionQueue_.assertCurrent("_flushSessionWithReason");
  if (!session_) {
    if (callback) callback();
    return;
  }
  flushReason_ = reason;
  const uint64_t now = nowNanoseconds(*assembly_.clock);
  session_->enumerateSessions([&](ClientSession& session, bool last) {
    if (reason != kOrvexSessionEndNoPreviousSession) {
      auto end = std::make_shared<OrvexSessionEndFeedback>();
      end->timestamp = now;
      end->reason = reason;
      session.addFeedback(
          OrvexFeedback::initWithFeedback(end, 0, session.userGuid(), session.agent()));
    }
    session.sessionComplete();
    if (last && callback) callback();
  });
  session_.reset();
}

}  // namespace orvex
