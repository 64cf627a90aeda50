// The records the daemon makes about its clients' sessions and connections.
//
// They travel like every other record (envelope, session file, upload) and are read back from
// session files through NBFeedback::fromArchiveForm. None of them belongs to a query, so their
// envelopes never add query identifiers.
#pragma once

#include <cstdint>
#include <vector>

#include "orvexd/model/feedback_record.h"
#include "orvexd/model/nb_search_records.h"

namespace orvex {

// Why a session ended, the values of OrvexSessionEndFeedback::reason.
enum OrvexSessionEndReason : uint32_t {
  kOrvexSessionEndNoPreviousSession = 0,
  kOrvexSessionEndExternalRequest = 1,
  kOrvexSessionEndSessionIdle = 2,
  kOrvexSessionEndMaxSessionTime = 3,
  kOrvexSessionEndGuidChanged = 4,
  kOrvexSessionEndCriticalMemory = 5,
  kOrvexSessionEndEngagementReceived = 6,
  kOrvexSessionEndFileSizeLimit = 7,  // its file reached the size limit; the next one goes on
};

// The last record of a session that was ended by the daemon.
class OrvexSessionEndFeedback : public FeedbackRecord<OrvexSessionEndFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "OrvexSessionEndFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSessionEnd;
  static constexpr bool kRequiresQueryId = false;
  static constexpr FeedbackTable reasons() { return feedback_tables::kSessionEndReasons; }

  uint32_t reason = kOrvexSessionEndNoPreviousSession;  // reasons()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("reason", self.reason, reasons());
  }
};

// Results that were shown during a session but never reported by the client.
class OrvexSessionMissingResults : public FeedbackRecord<OrvexSessionMissingResults, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "OrvexSessionMissingResults";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSessionMissingResults;
  static constexpr bool kRequiresQueryId = false;

  std::vector<NBSearchResult> results;

  static OrvexSessionMissingResults initWithMissingResults(std::vector<NBSearchResult> results);

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("results", self.results);
  }
};

// Suggestions that were shown during a session but never reported by the client.
class OrvexSessionMissingSuggestions
    : public FeedbackRecord<OrvexSessionMissingSuggestions, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "OrvexSessionMissingSuggestions";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSessionMissingSuggestions;
  static constexpr bool kRequiresQueryId = false;

  std::vector<NBSearchSuggestion> suggestions;

  static OrvexSessionMissingSuggestions initWithMissingSuggestions(
      std::vector<NBSearchSuggestion> suggestions);

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("suggestions", self.suggestions);
  }
};

// A client's connection went away.
class OrvexConnectionInvalidated : public FeedbackRecord<OrvexConnectionInvalidated, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "OrvexConnectionInvalidated";
  static constexpr NBFeedbackType kType = NBFeedbackType::kConnectionInvalidated;
  static constexpr bool kRequiresQueryId = false;
};

}  // namespace orvex
