// OrvexFeedbackFlusher turns buffered objects into uploads.
//
// Each object of the buffer is written as compact JSON through a CompressedOutputStream into a
// temporary file ("flusher_XXXXXX" in the temporary directory, mode 0600), the file is handed to
// the upload session with a request carrying the body's digest, and the file is removed as soon
// as the task has started (the task holds it open). The pass empties the buffer whatever becomes
// of each object: an object that cannot be written is dropped, and an upload that cannot be
// started is lost; each is logged. Without an endpoint the files are written and removed all the
// same, and nothing is sent. No temporary file outlives its pass.
//
// The endpoint follows every "ORVBagChangeNotification": none while the bag disables feedback,
// else the bag's feedback URL with the query "v=2" (identifier 1, the feedback flusher) or its
// crowdsourcing URL as it is (identifier 0). Until the first bag there is none.
//
// Each started task's item count (the top-level keys of its JSON object) is kept until the
// upload completion takes it (BackgroundFlusher::uploadTaskDidComplete, which every task's
// completion reaches through the Assembly).
//
// Threading: queueBuffer_ ("com.zelmor.orvexd.orvexDataBufferQueue") owns sessionBuffer_ and
// serverEndpoint_; feedbackCountQueue_ ("com.zelmor.orvexd.feedbackCountQueue") owns
// feedbacksPerTask_. The synchronous calls must not be made from the queue they wait on. Made
// through initWithAssembly() (the bag observer holds the flusher weakly).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/interfaces/feedback_flusher.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexFeedbackFlusher final : public FeedbackFlusher,
                                   public std::enable_shared_from_this<OrvexFeedbackFlusher> {
 public:
  static constexpr int64_t kIdentifierCrowdsourcing = 0;
  static constexpr int64_t kIdentifierFeedbacks = 1;
  // How long an upload may wait for the server; the defaults key "ORVFeedbackUploadTimeout"
  // (seconds) replaces it, for integrators with slow links and for tests.
  static constexpr Duration kUploadTimeout = std::chrono::seconds(300);

  static std::shared_ptr<OrvexFeedbackFlusher> initWithAssembly(Assembly& assembly,
                                                                int64_t identifier);
  // Use initWithAssembly().
  OrvexFeedbackFlusher(Assembly& assembly, int64_t identifier);
  ~OrvexFeedbackFlusher() override;
  OrvexFeedbackFlusher(const OrvexFeedbackFlusher&) = delete;
  OrvexFeedbackFlusher& operator=(const OrvexFeedbackFlusher&) = delete;

  void flush(std::shared_ptr<const FlushableObject> object,
             std::function<void()> callback) override;
  void flushSyncFromArray(std::vector<std::shared_ptr<const FlushableObject>> objects) override;
  void dropFeedbacks() override;
  // Adds the number of bodies returned to "com.zelmor.orvexd.clientconnection".
  void flushToWireAsync(std::function<void(std::vector<FlushedBody>)> callback) override;
  void flushAllToWire(std::function<void(std::vector<FlushedBody>)> callback) {
    flushToWireAsync(std::move(callback));
  }
  std::vector<FlushedBody> flushToWireSync() override;
  size_t countOfDatabuffer() override;
  std::vector<std::shared_ptr<const FlushableObject>> sessionBuffer();

  void setFeedbacksPerTask(uint64_t taskIdentifier, uint64_t count) override;
  void removeFeedbacksForTask(uint64_t taskIdentifier) override;
  uint64_t getFeedbackCountForTask(uint64_t taskIdentifier) override;

  int64_t identifier() const { return identifier_; }
  std::optional<std::string> serverEndpoint();
  // `url` with its query replaced by "v=2"; nothing for nothing.
  static std::optional<std::string> getServerEndpointForFeedback(
      const std::optional<std::string>& url);

 private:
  void bagChangeNotification(const Notification& notification);
  // One flush pass, on queueBuffer_: returns the bodies written when `returnObjects` is set.
  std::vector<FlushedBody> flushToWireWithObjectsReturned(bool returnObjects);
  // Writes, uploads and removes one object's file.
  void flushObject(const FlushableObject& object, bool returnObjects,
                   std::vector<FlushedBody>& bodies);
  // A new empty temporary file, or nothing.
  std::optional<std::filesystem::path> getTmpFile();
  void startUpload(const std::string& endpoint, const std::filesystem::path& file,
                   const std::string& digest, uint64_t count);

  Assembly& assembly_;
  const int64_t identifier_;
  const std::string name_;  // "crowdsourcing", "Feedbacks" or ""
  SerialQueue queueBuffer_;
  SerialQueue feedbackCountQueue_;
  // Owned by queueBuffer_.
  std::vector<std::shared_ptr<const FlushableObject>> sessionBuffer_;
  std::optional<std::string> serverEndpoint_;
  // Owned by feedbackCountQueue_.
  std::map<uint64_t, uint64_t> feedbacksPerTask_;
  ObserverToken bagObserver_;  // last: removed before the rest goes
};

}  // namespace orvex
