// A feedback session of its own, outside every session manager: the bag controller records each
// bag fetch in one, so that the fetch's records never open, end or rotate a client's session and
// are kept whatever the bag says about feedback. StandaloneClientSession (feedback layer) is the
// implementation; the Assembly's openStandaloneSession makes them.
#pragma once

#include <functional>
#include <memory>

#include "orvexd/model/orvex_feedback.h"

namespace orvex {

class StandaloneSession {
 public:
  virtual ~StandaloneSession() = default;
  // Appends a record to the session (and its file); callable from any thread.
  virtual void addFeedback(const OrvexFeedback& feedback) = 0;
  // Closes the session and lists it for upload; nothing may be added afterwards.
  virtual void sessionComplete() = 0;
};

// Opens a session with its first record; null when none can be opened.
using StandaloneSessionOpener = std::function<std::shared_ptr<StandaloneSession>(OrvexFeedback)>;

}  // namespace orvex
