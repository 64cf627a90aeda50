// What the feedback pipeline needs of a flusher: a buffer of objects waiting for upload, the pass
// that writes each of them compressed to a temporary file and starts its upload, and the number
// of items each started upload carries. OrvexFeedbackFlusher is the implementation; the daemon
// has two, the feedback flusher (sessions) and the crowdsourcing flusher (crowdsourcing records).
//
// Everything asynchronous runs on the flusher's buffer queue; the synchronous calls wait for it
// and so must not be made from it. Task counts live on a queue of their own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace orvex {

// Anything that can be uploaded: a session, or one crowdsourcing record on its own.
class FlushableObject {
 public:
  virtual ~FlushableObject() = default;
  // The JSON object the upload body is made of.
  virtual nlohmann::json getFeedbacksToSend() const = 0;
};

// One upload body as it was sent: the compressed bytes of the temporary file.
using FlushedBody = std::vector<uint8_t>;

class FeedbackFlusher {
 public:
  virtual ~FeedbackFlusher() = default;

  // Appends `object` to the buffer; `callback` (if any) runs on the buffer queue after.
  virtual void flush(std::shared_ptr<const FlushableObject> object,
                     std::function<void()> callback) = 0;
  virtual void flushSyncFromArray(std::vector<std::shared_ptr<const FlushableObject>> objects) = 0;
  // Empties the buffer.
  virtual void dropFeedbacks() = 0;
  // One flush pass; `callback` (if any) receives the upload bodies written.
  virtual void flushToWireAsync(std::function<void(std::vector<FlushedBody>)> callback) = 0;
  // One flush pass, waited for; returns the upload bodies written.
  virtual std::vector<FlushedBody> flushToWireSync() = 0;
  virtual size_t countOfDatabuffer() = 0;

  // The number of items the upload task `taskIdentifier` carries (0 when unknown).
  virtual void setFeedbacksPerTask(uint64_t taskIdentifier, uint64_t count) = 0;
  virtual void removeFeedbacksForTask(uint64_t taskIdentifier) = 0;
  virtual uint64_t getFeedbackCountForTask(uint64_t taskIdentifier) = 0;
};

}  // namespace orvex
