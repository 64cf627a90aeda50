// BackgroundActivitiesManager drives the uploads.
//
// It registers the repeating activity "com.zelmor.orvexd.flusher.background" (first run 300 s
// after start-up, then every 600 s, grace period 300 s, on battery too). Each run, and each
// insertFlushActivity(), is one flush activity: every finished session file is read back,
// deleted at once whether it could be read or not (a file is tried only once), and the session
// uploaded through the manager's own feedback flusher; then the crowdsourcing records kept by the
// persistent storage are uploaded through the crowdsourcing flusher. The bodies of each pass go
// to the flusher control listener when there is one. While stopFlushing is set, scheduled runs
// do nothing; insertFlushActivity() still uploads.
//
// Every upload the flushers start completes here (uploadTaskDidComplete): a time-out adds 1 to
// "com.zelmor.orvexd.fbrequesttimedout", and the task's item count goes to
// "com.zelmor.orvexd.feedbacksent" on a 200 answer and to "com.zelmor.orvexd.feedbacknotsent"
// otherwise. Failed uploads are not retried.
//
// Threading: flush activities run on queueFlusher_ ("com.zelmor.orvexd.
// backgrondActivitiesManagerQueue"), which enters the storage's and the flushers' queues
// synchronously; stopFlushing_ is atomic; completions run on the upload session's callback
// queue and touch only the flushers' task counts. Made through initWithAssembly() (the activity
// handler holds the manager weakly).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "orvexd/model/interfaces/background_flusher.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;
class OrvexFeedbackFlusher;

class BackgroundActivitiesManager final
    : public BackgroundFlusher,
      public std::enable_shared_from_this<BackgroundActivitiesManager> {
 public:
  static constexpr Duration kDelay = std::chrono::seconds(300);
  static constexpr Duration kInterval = std::chrono::seconds(600);
  static constexpr Duration kGracePeriod = std::chrono::seconds(300);

  static std::shared_ptr<BackgroundActivitiesManager> initWithAssembly(Assembly& assembly);
  // Use initWithAssembly().
  explicit BackgroundActivitiesManager(Assembly& assembly);
  // Unregisters the activity.
  ~BackgroundActivitiesManager() override;
  BackgroundActivitiesManager(const BackgroundActivitiesManager&) = delete;
  BackgroundActivitiesManager& operator=(const BackgroundActivitiesManager&) = delete;

  void insertFlushActivity(std::function<void()> callback) override;
  bool stopFlushing() const override { return stopFlushing_.load(); }
  void setStopFlushing(bool stop) override { stopFlushing_.store(stop); }
  void uploadTaskDidComplete(uint64_t taskIdentifier, const HttpDataResult& result) override;

  const std::shared_ptr<OrvexFeedbackFlusher>& feedbackFlusher() const { return feedbackFlusher_; }

 private:
  void activityHandler(const std::string& identifier);
  // Moves the activity to `state`, logging a refusal.
  void setActivityState(const std::string& identifier, int64_t state);
  // One flush activity, on queueFlusher_.
  void _flusherActivity();
  void flushCrowdsourcingRecords();

  Assembly& assembly_;
  SerialQueue queueFlusher_;
  const std::shared_ptr<OrvexFeedbackFlusher> feedbackFlusher_;
  std::atomic<bool> stopFlushing_{false};
};

}  // namespace orvex
