#include "orvexd/feedback/background_activities_manager.h"

#include <curl/curl.h>

#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/file_container.h"
#include "orvexd/feedback/orvex_feedback_flusher.h"
#include "orvexd/feedback/stored_client_session.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/flusher_listener.h"
#include "orvexd/model/interfaces/persistent_storage.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/orvex_ipc_activity.h"
#include "orvexd/platform/process_transaction.h"

namespace orvex {

namespace {

const OrvexLog& flusherLog() { return OrvexLogForCategory(kOrvexLogFlusher); }

// One crowdsourcing record, uploaded on its own as the JSON object the client sent.
class CrowdsourcingRecord final : public FlushableObject {
 public:
  explicit CrowdsourcingRecord(nlohmann::json json) : json_(std::move(json)) {}
  nlohmann::json getFeedbacksToSend() const override { return json_; }

 private:
  const nlohmann::json json_;
};

}  // namespace

std::shared_ptr<BackgroundActivitiesManager> BackgroundActivitiesManager::initWithAssembly(
    Assembly& assembly) {
  auto manager = std::make_shared<BackgroundActivitiesManager>(assembly);
  if (assembly.activityScheduler) {
    ActivityCriteria criteria = OrvexIpcCriteria::createCriteria();
    OrvexIpcCriteria::setDelay(kDelay, criteria);
    OrvexIpcCriteria::setRepeating(true, criteria);
    OrvexIpcCriteria::setInterval(kInterval, criteria);
    OrvexIpcCriteria::setGracePeriod(kGracePeriod, criteria);
    OrvexIpcCriteria::setAllowBatteryUsage(true, criteria);
    std::weak_ptr<BackgroundActivitiesManager> weak = manager;
    OrvexIpcActivity::registerActivityWithIdentifier(
        *assembly.activityScheduler, kORVFlusherActivityIdentifier, std::move(criteria),
        [weak](const std::string& identifier) {
          if (auto self = weak.lock()) self->activityHandler(identifier);
        });
  }
  flusherLog().info("started flush to wire in the background %s with interval %f seconds",
                    kORVFlusherActivityIdentifier,
                    std::chrono::duration<double>(kInterval).count());
  return manager;
}

BackgroundActivitiesManager::BackgroundActivitiesManager(Assembly& assembly)
    : assembly_(assembly),
      queueFlusher_("com.zelmor.orvexd.backgrondActivitiesManagerQueue", *assembly.workerPool,
                    *assembly.clock),
      feedbackFlusher_(OrvexFeedbackFlusher::initWithAssembly(
          assembly, OrvexFeedbackFlusher::kIdentifierFeedbacks)) {}

BackgroundActivitiesManager::~BackgroundActivitiesManager() {
  if (assembly_.activityScheduler) {
    OrvexIpcActivity::unregister(*assembly_.activityScheduler, kORVFlusherActivityIdentifier);
  }
}

void BackgroundActivitiesManager::insertFlushActivity(std::function<void()> callback) {
  queueFlusher_.async([weak = weak_from_this(), callback = std::move(callback)] {
    if (auto self = weak.lock()) self->_flusherActivity();
    if (callback) callback();
  });
}

void BackgroundActivitiesManager::activityHandler(const std::string& identifier) {
  if (stopFlushing_.load()) {
    flusherLog().info("flushing has been stopped, will start again with dump command");
    setActivityState(identifier, ActivityScheduler::kStateDone);
    return;
  }
  flusherLog().info("scheduled flush feedbacks to wire %s", identifier);
  setActivityState(identifier, ActivityScheduler::kStateContinue);
  // Open until the run has ended.
  auto transaction = std::make_shared<ProcessTransaction>(kORVFlusherActivityIdentifier);
  queueFlusher_.async([weak = weak_from_this(), identifier, transaction] {
    auto self = weak.lock();
    if (!self) return;
    self->_flusherActivity();
    self->setActivityState(identifier, ActivityScheduler::kStateDone);
  });
}

void BackgroundActivitiesManager::setActivityState(const std::string& identifier, int64_t state) {
  if (!assembly_.activityScheduler) return;
  ActivityScheduler& scheduler = *assembly_.activityScheduler;
  if (!OrvexIpcActivity::setState(scheduler, identifier, state)) {
    flusherLog().error(
        "State transition from %ld to %d invalid",
        static_cast<long>(OrvexIpcActivity::getStateForActivity(scheduler, identifier).value_or(0)),
        static_cast<int>(state));
  }
}

void BackgroundActivitiesManager::_flusherActivity() {
  queueFlusher_.assertCurrent("_flusherActivity");
  const auto listener = assembly_.flusherIpcListener;
  const auto send = [&listener](std::vector<FlushedBody> bodies) {
    if (listener && !bodies.empty()) listener->sendDataToSendingStreamListener(std::move(bodies));
  };
  try {
    if (const auto storage = assembly_.persistentStorage) {
      for (const auto& container : storage->getAvailableSessionHandles()) {
        std::optional<StoredSession> stored = container->read();
        // Tried once: the file goes whether or not it could be read.
        storage->deleteSessionWithFileContainer(container);
        if (!stored) continue;
        feedbackFlusher_->flush(std::make_shared<StoredClientSession>(std::move(*stored)), nullptr);
        send(feedbackFlusher_->flushToWireSync());
      }
    }
    if (const auto crowdsourcing = assembly_.crowdsourcingFeedbackFlusher) {
      flushCrowdsourcingRecords();
      send(crowdsourcing->flushToWireSync());
    }
  } catch (const std::exception& exception) {
    flusherLog().error("flush activity failed: %@", exception.what());
  }
}

void BackgroundActivitiesManager::flushCrowdsourcingRecords() {
  const auto storage = assembly_.persistentStorage;
  if (!storage) return;
  const JsonLimits limits{assembly_.inputLimits.recordBytes};
  std::vector<std::shared_ptr<const FlushableObject>> records;
  for (const std::string& text : storage->takeCrowdsourcingRecords()) {
    std::string problem;
    nlohmann::json parsed = parseJsonWithinLimits(text, limits, &problem);
    if (!parsed.is_object()) {
      if (problem.empty()) problem = "is not a JSON object";
      flusherLog().error("crowdsourcing record dropped: %@", problem);
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsDropped);
      continue;
    }
    records.push_back(std::make_shared<CrowdsourcingRecord>(std::move(parsed)));
  }
  if (!records.empty()) assembly_.crowdsourcingFeedbackFlusher->flushSyncFromArray(records);
}

void BackgroundActivitiesManager::uploadTaskDidComplete(uint64_t taskIdentifier,
                                                        const HttpDataResult& result) {
  flusherLog().info("URLSession:task:didCompleteWithError: id=%ld, error=%@",
                    static_cast<long>(taskIdentifier),
                    result.error ? result.error->describe() : std::string("(null)"));
  if (result.error && result.error->domain == kHttpErrorDomain &&
      result.error->code == CURLE_OPERATION_TIMEDOUT) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFBRequestTimedOut);
  }
  const uint64_t count = feedbackFlusher_->getFeedbackCountForTask(taskIdentifier);
  feedbackFlusher_->removeFeedbacksForTask(taskIdentifier);
  // Crowdsourcing uploads are not counted, but their task counts must not pile up either.
  if (const auto crowdsourcing = assembly_.crowdsourcingFeedbackFlusher) {
    crowdsourcing->removeFeedbacksForTask(taskIdentifier);
  }
  if (!result.response || result.response->statusCode != 200) {
    flusherLog().error("response error %@", result.response
                                                ? std::to_string(result.response->statusCode)
                                                : std::string("(no response)"));
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(count),
                                                      kORVCounterFeedbackNotSent);
  } else {
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(count),
                                                      kORVCounterFeedbackSent);
  }
}

}  // namespace orvex
