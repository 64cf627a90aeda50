#include "orvexd/feedback/client_session.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/feedback/session_privacy_filter.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }

// Clients whose first session of the day is recorded, in the order their names are tried.
constexpr std::array<std::string_view, 6> kFirstUseClients = {"roamer",   "glance", "lookup",
                                                              "messages", "news",   "voxa"};
// Client short names of the counters, in the order they are tried; the daemon is one of them.
// One lock for every client's first-use date: the check reads, compares and stores it.
std::mutex& firstUseMutex() {
  static std::mutex mutex;
  return mutex;
}

// The number of the local calendar day `time` falls on.
int64_t localDayNumber(WallTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return seconds / 86400;
  const int64_t shifted = static_cast<int64_t>(seconds) + local.tm_gmtoff;
  return shifted >= 0 ? shifted / 86400 : (shifted - 86399) / 86400;
}

// The time of `feedback` in milliseconds after `start` (nanoseconds), 0 for earlier records.
uint64_t relativeTimestamp(const OrvexFeedback& feedback, uint64_t start) {
  if (!feedback.feedback()) return 0;
  const uint64_t at = feedback.feedback()->timestamp;
  return at > start ? (at - start) / 1000000 : 0;
}

}  // namespace

std::optional<std::string> ClientSession::firstUseKeyForAgent(std::string_view agent) {
  const std::string lower = asciiLowercase(agent);
  for (std::string_view name : kFirstUseClients) {
    if (lower.find(name) != std::string::npos) {
      return std::string(kFirstUseKeyPrefix) + std::string(name);
    }
  }
  return std::nullopt;
}

std::shared_ptr<ClientSession> ClientSession::initWithAssembly(Assembly& assembly,
                                                               OrvexFeedback feedback) {
  return initWithAssembly(assembly, std::move(feedback), kOrvexSessionEndNoPreviousSession);
}

std::shared_ptr<ClientSession> ClientSession::initWithAssembly(Assembly& assembly,
                                                               OrvexFeedback feedback,
                                                               uint32_t previousSessionEndReason) {
  return std::make_shared<ClientSession>(assembly, feedback, previousSessionEndReason);
}

std::shared_ptr<ClientSession> ClientSession::createFeedbackSessionFromError(
    const OrvexError& error, Assembly& assembly) {
  auto record = std::make_shared<NBErrorFeedback>();
  record->timestamp = monotonicNanoseconds(assembly.clock->monotonicNow());
  record->error = error;
  std::optional<std::string> guid;
  if (assembly.guidController) guid = assembly.guidController->currentUserGUID().upperString();
  return initWithAssembly(
      assembly, OrvexFeedback::initWithFeedback(record, 0, std::move(guid), kORVOrvexdNameVersion));
}

ClientSession::ClientSession(Assembly& assembly, const OrvexFeedback& feedback,
                             uint32_t previousSessionEndReason)
    : FeedbackSession(assembly, feedback, previousSessionEndReason),
      agent_(feedback.userAgent()),
      removeTimestamps_(feedback.type() == NBFeedbackType::kCustomGlanceResultFeatures),
      sessionStart_(assembly.clock->wallNow()),
      sessionStartMonotonic_(assembly.clock->monotonicNow()) {
  const std::optional<std::string> firstUseKey = firstUseKeyForAgent(agent_);
  if (firstUseKey && assembly_.userDefaults) {
    firstUseDate_ = assembly_.userDefaults->dateForKey(*firstUseKey);
  }
  if (auto key = createCounterKey(extractClientNameFromString(agent_), kORVCounterSuffixSessions)) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
  }
  firstUseOfTheDay_ = checkFirstUseOfTheDay(firstUseKey);

  // The versions of the resource files as the session starts.
  resourceVersions_ = PlistDictionary();
  if (assembly_.downloadManager) {
    for (auto& [key, version] : assembly_.downloadManager->resourceVersions()) {
      resourceVersions_.emplace(key, PlistValue(std::move(version)));
    }
  }
  if (assembly_.persistentStorage) {
    storageHandle_ = assembly_.persistentStorage->createFileContainerForWriting();
  }
  if (storageHandle_) {
    maxFileSize_ = storageHandle_->maxFileSize();
    headerBytes_ = storageHandle_->writeSessionHeader(archiveForm());
  } else {
    maxFileSize_ = OrvexPersistentStorage::kDefaultMaxFileSize;
    headerBytes_ = FileContainer::recordSize(
        serializePropertyList(archiveForm(), PlistFormat::kBinary).size());
  }
  // The largest closing record this session can have.
  endReserve_ = FileContainer::recordSize(
      sessionEnd(kOrvexSessionEndFileSizeLimit, UINT64_MAX).archiveData().size());
  fileBytes_ = headerBytes_;
  (void)addFeedback(feedback);
}

bool ClientSession::checkFirstUseOfTheDay(const std::optional<std::string>& key) {
  if (!key) {
    sessionLog().debug("user default key not found for agent: %@", agent_);
    return false;
  }
  std::lock_guard lock(firstUseMutex());
  const WallTime now = assembly_.clock->wallNow();
  if (assembly_.userDefaults) firstUseDate_ = assembly_.userDefaults->dateForKey(*key);
  if (firstUseDate_ && localDayNumber(*firstUseDate_) == localDayNumber(now)) return false;
  firstUseDate_ = now;
  if (assembly_.userDefaults) {
    (void)assembly_.userDefaults->setObject(*key, PlistValue(PlistDate(now)));
    (void)assembly_.userDefaults->synchronize();
  }
  if (auto counter =
          createCounterKey(extractClientNameFromString(*key), kORVCounterSuffixDailyActiveUsers)) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, *counter);
  }
  return true;
}

FeedbackSession::AddResult ClientSession::addFeedback(const OrvexFeedback& feedback) {
  return add(feedback, endReserve_);
}

void ClientSession::addSessionEnd(uint32_t reason, uint64_t timestamp) {
  (void)add(sessionEnd(reason, timestamp), 0);
}

OrvexFeedback ClientSession::sessionEnd(uint32_t reason, uint64_t timestamp) const {
  auto end = std::make_shared<OrvexSessionEndFeedback>();
  end->timestamp = timestamp;
  end->reason = reason;
  return OrvexFeedback::initWithFeedback(end, 0, userGuid_, agent_);
}

FeedbackSession::AddResult ClientSession::add(const OrvexFeedback& feedback, uint64_t keepFree) {
  if (!feedback.feedback()) {
    sessionLog().debug("attempted to add a nil feedback");
    return AddResult::kAdded;
  }
  std::vector<OrvexFeedback> records{feedback};
  if (userGuid_ && feedback.userGuid() != userGuid_) {
    auto record = std::make_shared<NBErrorFeedback>();
    record->timestamp = monotonicNanoseconds(assembly_.clock->monotonicNow());
    record->error = OrvexError(kORVErrorDomain, 500, "different guid in session");
    records.push_back(
        OrvexFeedback::initWithFeedback(record, 0, std::nullopt, feedback.userAgent()));
  }
  std::vector<std::vector<uint8_t>> archives;
  uint64_t size = 0;
  for (const auto& record : records) {
    archives.push_back(record.archiveData());
    size += FileContainer::recordSize(archives.back().size());
  }

  std::lock_guard lock(mutex_);
  if (fileBytes_ + size + keepFree >= maxFileSize_) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileSizeExceeded);
    OrvexLogForCategory(kOrvexLogFeedbackStorage)
        .error("bytes written (%llu) + feedback (%lu) exceeds max session size (%lu)", fileBytes_,
               size, maxFileSize_);
    if (keepFree > 0 && headerBytes_ + size + keepFree < maxFileSize_) return AddResult::kFull;
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(records.size()),
                                                      kORVCounterRecordsDropped);
    return AddResult::kTooLarge;
  }
  fileBytes_ += size;
  if (storageHandle_) {
    for (auto& archive : archives) storageHandle_->writeArchive(std::move(archive));
  } else {
    unstored_.insert(unstored_.end(), records.begin(), records.end());
  }
  return AddResult::kAdded;
}

void ClientSession::enumerateSessions(const SessionVisitor& visit) { visit(*this, true); }

std::vector<OrvexFeedback> ClientSession::getSessionFeedbacks(uint64_t budget) const {
  // The file's queue runs every write posted before the read first.
  if (storageHandle_) return storageHandle_->readRecords(budget);
  std::lock_guard lock(mutex_);
  return unstored_;  // bounded by the file size like a file
}

std::vector<OrvexFeedback> ClientSession::feedbacksWithRelativeTimestamp(uint64_t budget) const {
  std::vector<OrvexFeedback> feedbacks = getSessionFeedbacks(budget);
  const uint64_t start = monotonicNanoseconds(sessionStartMonotonic_);
  for (auto& feedback : feedbacks) feedback.setRelTimestamp(relativeTimestamp(feedback, start));
  return feedbacks;
}

std::vector<OrvexFeedback> ClientSession::privacyFilteredFeedbacksWithRelativeTimestamp(
    SessionProcessingHelper& helper) const {
  return privacyFilteredRecords(uploadFields(), getSessionFeedbacks(), helper);
}

nlohmann::json ClientSession::getFeedbacksToSend() const {
  return uploadObject(uploadFields(), getSessionFeedbacks());
}

ClientSession::UploadFields ClientSession::uploadFields() const {
  return UploadFields{agent_,
                      userGuid_,
                      resourceVersions_,
                      sessionStart_,
                      monotonicNanoseconds(sessionStartMonotonic_),
                      firstUseOfTheDay_,
                      removeTimestamps_,
                      previousSessionEndReason_};
}

std::vector<OrvexFeedback> ClientSession::privacyFilteredRecords(const UploadFields& fields,
                                                                 std::vector<OrvexFeedback> records,
                                                                 SessionProcessingHelper& helper) {
  std::vector<OrvexFeedback> processed;
  processed.reserve(records.size());
  for (auto& feedback : records) {
    feedback.setRelTimestamp(relativeTimestamp(feedback, fields.startTimestamp));
    processed.push_back(feedback.process(helper));
  }
  // What was shown and never engaged goes first, as of the session's start.
  std::vector<OrvexFeedback> filtered;
  if (auto results = helper.missingResults(); !results.empty()) {
    auto record = std::make_shared<OrvexSessionMissingResults>(
        OrvexSessionMissingResults::initWithMissingResults(std::move(results)));
    record->timestamp = fields.startTimestamp;
    filtered.push_back(OrvexFeedback::initWithFeedback(record, 0, fields.userGuid, fields.agent));
  }
  if (auto suggestions = helper.missingSuggestions(); !suggestions.empty()) {
    auto record = std::make_shared<OrvexSessionMissingSuggestions>(
        OrvexSessionMissingSuggestions::initWithMissingSuggestions(std::move(suggestions)));
    record->timestamp = fields.startTimestamp;
    filtered.push_back(OrvexFeedback::initWithFeedback(record, 0, fields.userGuid, fields.agent));
  }
  filtered.insert(filtered.end(), std::make_move_iterator(processed.begin()),
                  std::make_move_iterator(processed.end()));
  return filtered;
}

nlohmann::json ClientSession::uploadObject(const UploadFields& fields,
                                           std::vector<OrvexFeedback> records) {
  SessionPrivacyFilter filter;
  nlohmann::json uploaded = nlohmann::json::array();
  for (const auto& feedback : privacyFilteredRecords(fields, std::move(records), filter)) {
    uploaded.push_back(feedback.dictionary().toJson());
  }
  const auto reason = OrvexSessionEndFeedback::reasons().nameAt(fields.previousSessionEndReason);
  const int64_t baseTime =
      fields.removeTimestamps
          ? 0
          : std::chrono::duration_cast<std::chrono::seconds>(fields.sessionStart.time_since_epoch())
                .count();
  return nlohmann::json{
      {"fb", std::move(uploaded)},
      {"agent", fields.agent},
      {"user_guid", fields.userGuid.value_or("")},
      {"resource_versions", feedback_codec::plistToJson(PlistValue(fields.resourceVersions))},
      {"first_use", fields.firstUseOfTheDay},
      {"base_time", baseTime},
      {"previous_session_end_reason", reason ? nlohmann::json(std::string(*reason)) : nullptr},
  };
}

void ClientSession::sessionComplete() {
  if (!storageHandle_ || !assembly_.persistentStorage) {
    sessionLog().error("Storage Handle nil major error");
    std::lock_guard lock(mutex_);
    if (!unstored_.empty()) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(unstored_.size()),
                                                        kORVCounterRecordsDropped);
    }
    unstored_.clear();
    return;
  }
  // Under the lock, so the close is queued after every write already posted.
  std::lock_guard lock(mutex_);
  assembly_.persistentStorage->closeSessionWithFileContainer(storageHandle_);
}

PlistDictionary ClientSession::archiveForm() const {
  PlistDictionary form{
      {"$class", std::string(FileContainer::kClientSessionClassName)},
      {"agent", agent_},
      {"resource_versions", resourceVersions_},
      {"base_time", PlistDate(sessionStart_)},
      {"first_use", firstUseOfTheDay_},
      {"remove_timestamps", removeTimestamps_},
      {"previous_session_end_reason", int64_t{previousSessionEndReason_}},
      // Records carry times on the monotonic clock: their times relative to the session start
      // are worked out from this when the session is read back for upload.
      {"start_timestamp", static_cast<int64_t>(monotonicNanoseconds(sessionStartMonotonic_))},
  };
  if (userGuid_) form.emplace("user_guid", *userGuid_);
  return form;
}

}  // namespace orvex
