// One client's session: the run of records of one user agent under one user GUID, written to a
// session file as it grows and uploaded once it is complete.
//
// A session is opened with its first record, which gives it its agent and user GUID. Opening
// counts the session ("com.zelmor.orvexd.<client>.sessions"), works out whether it is the
// client's first of the calendar day (counting "dailyactiveusers" when it is), opens a new
// session file through the Assembly's persistent storage and writes the session's header and
// first record to it. Every later record is appended to the file as it is added. A record made
// under another user GUID than the session's is kept, followed by an error record ("different
// guid in session"). sessionComplete() closes the file and hands it to the storage for upload;
// the session must not be added to afterwards.
//
// The session keeps no records in memory: they are read back from its file when asked for.
// It measures each record against the room left in its file, always keeping room for its
// closing record (addSessionEnd()). A record that does not fit is not added (kFull; the session
// manager ends the session and opens the next with it), and one that would not fit even in an
// empty file is dropped and counted ("com.zelmor.orvexd.records.dropped"). Both are counted in
// "com.zelmor.orvexd.filesizeexceeded". A session without storage (no cache directory) keeps its
// records in memory, bounded the same way, and counts them as dropped when it completes.
//
// For upload, getFeedbacksToSend() gives the session's JSON object, with the records filtered
// by a SessionPrivacyFilter: private identifiers replaced, and results and suggestions shown but
// never engaged reported in two records at the start of the list.
//
// Threading: a session may be read and added to from any thread; mutex_ guards the size and
// the records kept without storage, and keeps file writes in the order records were added.
// Everything else is fixed when the session is made. The first-use date of each client is shared by
// all sessions through the defaults store, under one process-wide lock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/property_list.h"
#include "orvexd/feedback/feedback_session.h"
#include "orvexd/feedback/file_container.h"
#include "orvexd/model/interfaces/feedback_flusher.h"
#include "orvexd/model/orvex_session_feedback.h"
#include "orvexd/platform/clock.h"

namespace orvex {

class Assembly;
class SessionProcessingHelper;

class ClientSession final : public FeedbackSession,
                            public FlushableObject,
                            public std::enable_shared_from_this<ClientSession> {
 public:
  static constexpr std::string_view kFirstUseKeyPrefix = "OrvexFirstUseOfTheDay_";

  // A new session opened with `feedback`; `previousSessionEndReason` says why the client's
  // previous session ended (OrvexSessionEndReason).
  static std::shared_ptr<ClientSession> initWithAssembly(Assembly& assembly,
                                                         OrvexFeedback feedback);
  static std::shared_ptr<ClientSession> initWithAssembly(Assembly& assembly, OrvexFeedback feedback,
                                                         uint32_t previousSessionEndReason);
  // A session of one error record, made by the daemon under its own user agent, for records
  // that have no session to go to. The caller completes it.
  static std::shared_ptr<ClientSession> createFeedbackSessionFromError(const OrvexError& error,
                                                                       Assembly& assembly);

  // Use initWithAssembly(); public for make_shared.
  ClientSession(Assembly& assembly, const OrvexFeedback& feedback,
                uint32_t previousSessionEndReason);

  AddResult addFeedback(const OrvexFeedback& feedback) override;
  void enumerateSessions(const SessionVisitor& visit) override;
  std::vector<OrvexFeedback> feedbacksWithRelativeTimestamp(uint64_t budget) const override;
  // Adds the session's closing record, an OrvexSessionEndFeedback with `reason`, for which room
  // is always kept.
  void addSessionEnd(uint32_t reason, uint64_t timestamp);

  // The records as added, the newest whose archives take at most `budget` bytes.
  std::vector<OrvexFeedback> getSessionFeedbacks(uint64_t budget = UINT64_MAX) const;
  // The records with relative times, processed by `helper`, with the records of what the
  // helper finds missing first.
  std::vector<OrvexFeedback> privacyFilteredFeedbacksWithRelativeTimestamp(
      SessionProcessingHelper& helper) const;
  // The upload object: "fb", "agent", "user_guid", "resource_versions", "first_use",
  // "base_time" and "previous_session_end_reason".
  nlohmann::json getFeedbacksToSend() const override;

  // What a session's upload object says besides its records; a session read back from its file
  // (StoredClientSession) is uploaded from the same fields.
  struct UploadFields {
    std::string agent;
    std::optional<std::string> userGuid;
    PlistDictionary resourceVersions;
    WallTime sessionStart;
    // The session's start on the clock its records are stamped with, in nanoseconds.
    uint64_t startTimestamp = 0;
    bool firstUseOfTheDay = false;
    bool removeTimestamps = false;
    uint32_t previousSessionEndReason = 0;
  };
  UploadFields uploadFields() const;
  // `records` (in the order added) with their times relative to the session start, processed by
  // `helper`, after the records of what the helper finds missing.
  static std::vector<OrvexFeedback> privacyFilteredRecords(const UploadFields& fields,
                                                           std::vector<OrvexFeedback> records,
                                                           SessionProcessingHelper& helper);
  // The upload object of a session with `fields` and `records`, privacy filtered.
  static nlohmann::json uploadObject(const UploadFields& fields,
                                     std::vector<OrvexFeedback> records);
  // Closes the session's file and lists it for upload.
  void sessionComplete();
  // The session's archive form, the root record of its file.
  PlistDictionary archiveForm() const;

  const std::string& agent() const { return agent_; }
  bool firstUseOfTheDay() const { return firstUseOfTheDay_; }
  bool removeTimestamps() const { return removeTimestamps_; }

  // The defaults key of the client's first-use date, or nothing for a client that has none.
  static std::optional<std::string> firstUseKeyForAgent(std::string_view agent);

 private:
  // Records and stores today's first use; true when this is the client's first session today.
  bool checkFirstUseOfTheDay(const std::optional<std::string>& key);
  // Adds `feedback` if it leaves `keepFree` bytes of the file's room.
  AddResult add(const OrvexFeedback& feedback, uint64_t keepFree);
  OrvexFeedback sessionEnd(uint32_t reason, uint64_t timestamp) const;

  // Fixed at creation.
  const std::string agent_;
  const bool removeTimestamps_;
  const WallTime sessionStart_;
  const MonotonicTime sessionStartMonotonic_;
  std::optional<WallTime> firstUseDate_;
  bool firstUseOfTheDay_ = false;
  PlistDictionary resourceVersions_;
  std::shared_ptr<FileContainer> storageHandle_;
  uint64_t maxFileSize_ = 0;
  uint64_t headerBytes_ = 0;  // the file's version and session records
  uint64_t endReserve_ = 0;   // room kept for the closing record

  mutable std::mutex mutex_;
  uint64_t fileBytes_ = 0;               // guarded by mutex_: the file's size once written
  std::vector<OrvexFeedback> unstored_;  // guarded by mutex_: records without storage
};

}  // namespace orvex
