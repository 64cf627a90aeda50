// Somewhere to put the daemon's own feedback records. Components that record what they do (the
// bag controller's fetches, a client state's searches) hold a sink rather than the session
// manager behind it, so that they need nothing of the feedback subsystem.
#pragma once

#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class FeedbackSink {
 public:
  virtual ~FeedbackSink() = default;
  // Takes the record; asynchronous, callable from any thread.
  virtual void addOrvexFeedback(OrvexFeedback feedback) = 0;
};

}  // namespace orvex
