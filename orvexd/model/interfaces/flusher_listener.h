// The flusher control channel, as the feedback pipeline sees it: where the bodies of every upload
// and a description of every incoming record go when a diagnostic tool listens for them.
// OrvexFlusherIpc is the implementation; both calls do nothing when no tool listens.
#pragma once

#include <vector>

#include "orvexd/model/interfaces/feedback_flusher.h"
#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class FlusherListener {
 public:
  virtual ~FlusherListener() = default;
  // The bodies one flush pass uploaded, to the sending-stream listener.
  virtual void sendDataToSendingStreamListener(std::vector<FlushedBody> bodies) = 0;
  // A record a client just reported, to the receiving-stream listener as its description.
  virtual void sendDataToReceivingStreamListener(const OrvexFeedback& feedback) = 0;
};

}  // namespace orvex
