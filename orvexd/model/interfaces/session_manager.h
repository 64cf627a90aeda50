// What the rest of the daemon needs of a feedback session manager: somewhere to put records, a
// way to end the open session, and a look at what it holds.
//
// A manager collects the records of one client (or of every client, when sessions are shared)
// into sessions and decides when a session ends. Everything here is asynchronous onto the
// manager's own queue except currentFeedbacksWithRelativeTimestamp(), which waits for it; none
// of it may be called from that queue.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "orvexd/model/interfaces/feedback_sink.h"
#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class SessionManager : public FeedbackSink {
 public:
  // Stamps the record with the current user GUID and adds it to the open session, opening or
  // ending sessions as the record requires.
  void addOrvexFeedback(OrvexFeedback feedback) override = 0;
  // Ends the open session now, if there is one; `callback` runs once that is done (at once
  // without a session), on the manager's queue.
  virtual void flushSession(std::function<void()> callback) = 0;
  // A client connection with `agent` has gone. A private session is ended (callback(true)); a
  // shared one only records the loss and stays open (callback(false)).
  virtual void flushSessionInvalidationWithAgent(std::string agent,
                                                 std::function<void(bool flushed)> callback) = 0;
  // The open session's records, each with its time relative to the session's start; empty
  // when no session is open.
  virtual std::vector<OrvexFeedback> currentFeedbacksWithRelativeTimestamp() = 0;
};

}  // namespace orvex
