// OrvexFeedback: one feedback record together with the query, user and client it belongs to.
//
// The connection wraps every record a client reports, and the daemon every record it makes of
// its own, in an envelope; sessions keep envelopes, session files hold their archive form, and
// the flusher uploads their dictionary(). An envelope is a small value: it shares its record,
// which never changes once wrapped, and copies cheaply. The session stamps the user GUID and the
// time relative to the session start (setUserGuid, setRelTimestamp); nothing else changes.
//
// Archive form (one property-list dictionary a record of a session file): "$class"
// "OrvexFeedback", "feedback" (the record's archive form), "query_id" (signed), "user_guid"
// (left out when there is none), "user_agent" and "_clientQueryId" (unsigned). The relative
// time is not archived; a session recomputes it when it is rebuilt.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/feedback_dictionary.h"
#include "orvexd/model/nb_feedback.h"

namespace orvex {

class OrvexFeedback {
 public:
  static constexpr std::string_view kClassName = "OrvexFeedback";

  // `feedback` must not be null (a null one is logged and wrapped as an empty base record).
  static OrvexFeedback initWithFeedback(FeedbackRecordPtr feedback, int64_t queryId,
                                        std::optional<std::string> userGuid, std::string userAgent);
  static OrvexFeedback initWithFeedback(FeedbackRecordPtr feedback, int64_t queryId,
                                        std::optional<std::string> userGuid, std::string userAgent,
                                        uint64_t clientQueryId);

  const FeedbackRecordPtr& feedback() const { return feedback_; }
  int64_t queryId() const { return queryId_; }
  uint64_t clientQueryId() const { return clientQueryId_; }  // 0: none
  uint64_t relTimestamp() const { return relTimestamp_; }    // ms after the session start
  const std::optional<std::string>& userGuid() const { return userGuid_; }
  const std::string& userAgent() const { return userAgent_; }
  void setRelTimestamp(uint64_t milliseconds) { relTimestamp_ = milliseconds; }
  void setUserGuid(std::optional<std::string> userGuid) { userGuid_ = std::move(userGuid); }

  NBFeedbackType type() const { return feedback_->type(); }
  // The envelope with its record processed by the session's privacy filtering.
  OrvexFeedback process(SessionProcessingHelper& helper) const;

  // The upload form: the record's own object plus "query_id" and "client_query_id" (when the
  // record requires them; the latter only when not 0), "type" and "timestamp" (relTimestamp).
  FeedbackDictionary dictionary() const;
  // The same object with "timestamp" in milliseconds of the record's own clock, as compact
  // JSON text for logs.
  std::string description() const;

  PlistDictionary archiveForm() const;
  // The archive form as a binary property list; empty (and logged) when it cannot be written.
  std::vector<uint8_t> archiveData() const;
  // Total: a malformed archive gives an error and a log line in "Orvex_Feedback_Errors".
  static DecodeResult<OrvexFeedback> fromArchiveForm(const PlistValue& form);
  static DecodeResult<OrvexFeedback> fromArchiveData(std::span<const uint8_t> bytes);

  // Orders envelopes by their records' timestamps, the earlier first.
  static std::weak_ordering timeStampComparator(const OrvexFeedback& a, const OrvexFeedback& b);
  // The key names every encoder uses (kFeedbackSharedKeys).
  static std::span<const std::string_view> sharedKeySet() { return kFeedbackSharedKeys; }
  // The feedback kinds by index, and the name of one.
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kFeedbackTypeNames; }
  static std::optional<std::string_view> eventTypeToString(uint64_t type) {
    return eventTypes().nameAt(type);
  }

 private:
  OrvexFeedback(FeedbackRecordPtr feedback, int64_t queryId, std::optional<std::string> userGuid,
                std::string userAgent, uint64_t clientQueryId);
  FeedbackDictionary dictionaryWithTimestamp(uint64_t timestamp) const;

  FeedbackRecordPtr feedback_;
  int64_t queryId_ = 0;
  uint64_t clientQueryId_ = 0;
  uint64_t relTimestamp_ = 0;
  std::optional<std::string> userGuid_;
  std::string userAgent_;
};

// For diagnostics: one entry per field of the record (keyed as in its D-Bus form) or of the
// envelope (feedback, queryId, clientQueryId, relTimestamp, userGuid, userAgent), each the text
// of the value: strings as they are, other values as compact JSON, "" for empty values.
std::map<std::string, std::string> dictionaryWithPropertiesOfObject(const NBFeedback& record);
std::map<std::string, std::string> dictionaryWithPropertiesOfObject(const OrvexFeedback& envelope);

}  // namespace orvex
