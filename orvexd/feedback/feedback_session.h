// What the session manager needs of an open session, whether it is one client's ClientSession
// or a ClientSessionShared that keeps one ClientSession per client.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class ClientSession;

class FeedbackSession {
 public:
  virtual ~FeedbackSession() = default;

  // Appends a record (and writes it to the session's file).
  virtual void addFeedback(const OrvexFeedback& feedback) = 0;
  // The user GUID the session was opened under, as written in its records.
  virtual std::optional<std::string> userGuid() const = 0;
  // Calls `visit` once for every ClientSession it holds; `last` is true for the final one.
  virtual void enumerateSessions(
      const std::function<void(ClientSession& session, bool last)>& visit) = 0;
  // The records, each with its time relative to the start of the session that holds it.
  virtual std::vector<OrvexFeedback> feedbacksWithRelativeTimestamp() const = 0;
};

}  // namespace orvex
