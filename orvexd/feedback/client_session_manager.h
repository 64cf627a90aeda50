// ClientSessionManager groups records into sessions and decides when a session ends.
//
// States (State): no session is open (the start); a session is open and younger than the soft
// limit (600 s); a session is open past its soft limit. A session is open exactly when session_
// is set. The first record opens a session. 600 s after a session opened it passes its soft
// limit, and 300 s later it ends ("max session time passed") if nothing else ended it first.
// Past the soft limit, a result or card engagement ends it right after being added
// ("engagement received", and the user GUID is rotated), and a record that comes 180 s or more
// after the previous one ends it and opens the next session ("session idle", also rotating the
// GUID). A record under another user GUID than the session's (the GUID rotates on its own
// every 15 minutes) ends the session and opens the next ("guid changed"). flushSession() ends
// it on request ("external request"). A session whose file has no room left for the next record
// ends ("file size limit") and the next session, under the same GUID, begins with that record,
// so a busy client's records go on into a new file. An ended session gets an
// OrvexSessionEndFeedback with the reason as its last record and its file is handed to the storage
// for upload; the next session records that reason as its previous end reason.
//
// Records are stamped with the current user GUID; when the bag disables feedback for a record's
// user agent, the record is dropped.
//
// Threading: every field below sessionQueue_ is owned by it ("com.zelmor.orvexd.
// clientSessionManagerQueue"). Records and flushes are posted to it; session() and
// currentState() wait for it (or read directly when called on it, as from a flush callback),
// currentFeedbacksWithRelativeTimestamp() waits for it and must not be called from it.
// The soft-limit and max-time timers are one-shot timers on the queue that hold the manager
// weakly; a session's timers are cancelled when it ends, so they never act on the next one. The
// idle limit needs no timer: it is a deadline that the next record is compared with.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "orvexd/base/orvex_error.h"
#include "orvexd/feedback/feedback_session.h"
#include "orvexd/model/interfaces/session_manager.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/one_shot_timer.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;
class GUIDController;

class ClientSessionManager final : public SessionManager,
                                   public std::enable_shared_from_this<ClientSessionManager> {
 public:
  enum class State {
    kNoSession,      // the start, and after a session ended
    kOpen,           // a session is open, younger than the soft limit
    kPastSoftLimit,  // a session is open past its soft limit
  };
  static constexpr bool hasOpenSession(State state) { return state != State::kNoSession; }
  static constexpr bool isPastSoftLimit(State state) { return state == State::kPastSoftLimit; }

  static constexpr Duration kSoftLimit = std::chrono::seconds(600);
  static constexpr Duration kMaxTimeAfterSoftLimit = std::chrono::seconds(300);
  static constexpr Duration kIdleTime = std::chrono::seconds(180);
  // currentFeedbacksWithRelativeTimestamp() reads at most the newest records whose archives
  // take this many bytes, of each client's session.
  static constexpr uint64_t kFeedbackReadBudget = 16 * 1024 * 1024;

  // Must be owned by a shared_ptr before the first record arrives (its timers hold it weakly).
  ClientSessionManager(Assembly& assembly, std::shared_ptr<GUIDController> guidController,
                       std::string identifier);

  void addOrvexFeedback(OrvexFeedback feedback) override;
  void flushSession(std::function<void()> callback) override;
  void flushSessionInvalidationWithAgent(std::string agent,
                                         std::function<void(bool flushed)> callback) override;
  std::vector<OrvexFeedback> currentFeedbacksWithRelativeTimestamp() override;

  // Now is a good time to upload (no sender yet: the daemon watches no such condition): the
  // background flusher runs a flush activity. The open session is left alone.
  void hintFlush();

  // The open session, or null.
  std::shared_ptr<FeedbackSession> session();
  State currentState();

  // The daemon's own user agent, under which it records what it does itself.
  static std::string orvexdUserAgent();
  // Records `error` as an error record of the daemon's own in the Assembly's session manager.
  static void reportErrorAsOrvexdFeedback(const OrvexError& error, Assembly& assembly);
  // Records one of the daemon's own records (query id 0, the daemon's user agent) there.
  static void addOrvexdFeedback(FeedbackRecordPtr record, Assembly& assembly);

 private:
  // What moves the state machine.
  enum class Event {
    kFeedback,                 // a record to add
    kSoftLimitReached,         // the soft-limit timer fired
    kMaxTimerExpired,          // the max-time timer fired
    kExternalFlush,            // flushSession()
    kFeedbackAfterIdle,        // a record past the soft limit and the idle deadline
    kGuidChanged,              // a record under another user GUID than the session's
    kEngagementPastSoftLimit,  // a result or card engagement past the soft limit
    kFlushHint,                // hintFlush()
  };

  void _addOrvexFeedback(OrvexFeedback feedback);
  // Adds the record to the open session, or to the next one when the session's file is full.
  void _addToSession(const OrvexFeedback& feedback);
  void _updateState(Event event, const OrvexFeedback* feedback, std::function<void()> callback);
  void _setNewSession(const OrvexFeedback& feedback);
  void _onUserGuidSoftLimitReached();
  void _flushSessionWithReason(uint32_t reason, std::function<void()> callback);
  std::string currentGuidString();

  Assembly& assembly_;
  const std::shared_ptr<GUIDController> guidController_;
  const std::string identifier_;
  const bool shared_;
  SerialQueue sessionQueue_;  // "com.zelmor.orvexd.clientSessionManagerQueue"
  // Owned by sessionQueue_.
  std::shared_ptr<FeedbackSession> session_;
  State currentState_ = State::kNoSession;
  uint32_t flushReason_ = 0;
  uint64_t sessionCounter_ = 0;     // numbers the sessions in the log
  MonotonicTime expirationTime_{};  // the idle deadline: the last record's time + kIdleTime
  OneShotTimer softLimitTimer_{sessionQueue_};
  OneShotTimer maxTimer_{sessionQueue_};
};

}  // namespace orvex
