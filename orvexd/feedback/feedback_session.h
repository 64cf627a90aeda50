// What the session manager needs of an open session, whether it is one client's ClientSession
// or a ClientSessionShared that keeps one ClientSession per client; both are opened by a first
// record and keep what it says about the session.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class Assembly;
class ClientSession;

class FeedbackSession {
 public:
  virtual ~FeedbackSession() = default;
  FeedbackSession(const FeedbackSession&) = delete;
  FeedbackSession& operator=(const FeedbackSession&) = delete;

  // What became of a record given to addFeedback().
  enum class AddResult {
    kAdded,     // in the session, on its way to the file
    kFull,      // not added: the session's file has no room left for it; the next session will
    kTooLarge,  // dropped and counted: no session file could hold it
  };
  // Appends a record (and writes it to the session's file), if the file has room for it.
  virtual AddResult addFeedback(const OrvexFeedback& feedback) = 0;
  // The user GUID the session was opened under, as written in its records.
  std::optional<std::string> userGuid() const { return userGuid_; }
  // Called once for every ClientSession a session holds; `last` is true for the final one.
  using SessionVisitor = std::function<void(ClientSession& session, bool last)>;
  virtual void enumerateSessions(const SessionVisitor& visit) = 0;
  // The records, each with its time relative to the start of the session that holds it: the
  // newest whose archives take at most `budget` bytes (per client session), read back from the
  // session's file.
  virtual std::vector<OrvexFeedback> feedbacksWithRelativeTimestamp(uint64_t budget) const = 0;

 protected:
  // A session that `feedback` opens; `previousSessionEndReason` says why the session before it
  // ended (OrvexSessionEndReason).
  FeedbackSession(Assembly& assembly, const OrvexFeedback& feedback,
                  uint32_t previousSessionEndReason)
      : assembly_(assembly),
        userGuid_(feedback.userGuid()),
        previousSessionEndReason_(previousSessionEndReason) {}

  // Fixed at creation.
  Assembly& assembly_;
  const std::optional<std::string> userGuid_;
  const uint32_t previousSessionEndReason_;
};

}  // namespace orvex
