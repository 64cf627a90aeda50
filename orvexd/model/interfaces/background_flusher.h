// What the rest of the daemon needs of the background uploader: a flush activity run on demand
// (session managers' flush hints, the flusher control channel's dump), the switch that pauses the
// scheduled runs, and the completion of every upload the flushers start.
// BackgroundActivitiesManager is the implementation.
#pragma once

#include <cstdint>
#include <functional>

#include "orvexd/platform/http_session.h"

namespace orvex {

class BackgroundFlusher {
 public:
  virtual ~BackgroundFlusher() = default;
  // Queues one flush activity (every finished session file uploaded, then the crowdsourcing
  // records); `callback` (if any) runs once it is done, on the manager's queue.
  virtual void insertFlushActivity(std::function<void()> callback) = 0;
  // While set, scheduled runs do nothing; only insertFlushActivity() uploads.
  virtual bool stopFlushing() const = 0;
  virtual void setStopFlushing(bool stop) = 0;
  // An upload task started by a flusher has completed (on the upload session's callback queue).
  virtual void uploadTaskDidComplete(uint64_t taskIdentifier, const HttpDataResult& result) = 0;
};

}  // namespace orvex
