// Feedback records: the NB family that clients send, and the records the daemon makes of its
// own searches.
//
// Records are plain values with public fields. Whoever makes one fills it in and hands it over
// as std::shared_ptr<const NBFeedback>; from then on it is never changed, so encoders may run on
// any thread. Every record answers
// - type(): its feedback kind (NBFeedbackType, the index of its "type" name);
// - requiresQueryId(): whether its envelope adds "query_id" and "client_query_id";
// - dictionary(): its own upload JSON object (the envelope, OrvexFeedback, adds the rest);
// - process(): a copy with identifiers rewritten by the session's privacy filtering.
//
// Each class lists its fields in visit() (see feedback_codec.h) for its D-Bus form, a JSON
// object with "$class" (the class name) and the fields, and its archive form, a property-list
// dictionary with the same keys. Fields are keyed like the upload JSON keys they become; fields
// without one take their field name (queryId, customType, ...). Every record has "timestamp",
// its time in monotonic-clock nanoseconds. Reading either form (fromDBusText, fromDBusForm,
// fromArchiveForm) is total: anything malformed gives an OrvexError and an error log line in
// "Orvex_Feedback_Errors", never a partly read record.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/property_list.h"
#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/feedback_dictionary.h"
#include "orvexd/model/feedback_tables.h"
#include "orvexd/model/nb_search_records.h"
#include "orvexd/model/session_processing_helper.h"

namespace orvex {

using DBusFieldWriter = feedback_codec::FieldWriter<feedback_codec::DBusForm>;
using ArchiveFieldWriter = feedback_codec::FieldWriter<feedback_codec::ArchiveForm>;

class NBFeedback;
using FeedbackRecordPtr = std::shared_ptr<const NBFeedback>;

// The base record, of kind "unknown": it has nothing but its time.
class NBFeedback {
 public:
  static constexpr std::string_view kClassName = "NBFeedback";

  NBFeedback() = default;
  virtual ~NBFeedback() = default;

  uint64_t timestamp = 0;  // monotonic clock, nanoseconds

  virtual std::string_view className() const { return kClassName; }
  virtual NBFeedbackType type() const { return NBFeedbackType::kUnknown; }
  virtual bool requiresQueryId() const { return true; }
  virtual FeedbackDictionary dictionary() const { return FeedbackDictionary(); }
  // The client's query identifier this record is about, 0 when it names none: its own for a
  // search start, else that of the (first) result it reports.
  virtual uint64_t referencedClientQueryId() const { return 0; }

  // A copy with the identifiers of its results and suggestions rewritten by `helper`, or null
  // when nothing changed. Either way the helper has seen every result and suggestion.
  FeedbackRecordPtr process(SessionProcessingHelper& helper) const;

  nlohmann::json dbusForm() const;
  // The D-Bus form as compact JSON text.
  std::string dbusText() const;
  PlistDictionary archiveForm() const;

  static DecodeResult<FeedbackRecordPtr> fromDBusText(std::string_view text);
  static DecodeResult<FeedbackRecordPtr> fromDBusForm(const nlohmann::json& form);
  static DecodeResult<FeedbackRecordPtr> fromArchiveForm(const PlistValue& form);
  // The class names the readers know.
  static std::vector<std::string_view> recordClassNames();

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("timestamp", self.timestamp);
  }

  // Entry points of the field visitors; FeedbackRecord generates them for every class.
  virtual void writeFields(DBusFieldWriter& writer) const { visit(writer, *this); }
  virtual void writeFields(ArchiveFieldWriter& writer) const { visit(writer, *this); }
  virtual std::unique_ptr<NBFeedback> clone() const { return std::make_unique<NBFeedback>(*this); }
  virtual void rewriteIdentifiers(IdentifierRewriter& rewriter) { visit(rewriter, *this); }
  // Why the fields read make no valid record of the class, checked after reading.
  virtual std::optional<std::string> invalidReason() const { return std::nullopt; }
  // Reports to the session what the record says was engaged.
  virtual void reportEngagement(SessionProcessingHelper&) const {}
};

// Generates the per-class entry points from Derived::visit and Derived::kClassName.
template <class Derived, class Base>
class FeedbackRecord : public Base {
 public:
  std::string_view className() const override { return Derived::kClassName; }
  void writeFields(DBusFieldWriter& writer) const override { Derived::visit(writer, self()); }
  void writeFields(ArchiveFieldWriter& writer) const override { Derived::visit(writer, self()); }
  std::unique_ptr<NBFeedback> clone() const override { return std::make_unique<Derived>(self()); }
  void rewriteIdentifiers(IdentifierRewriter& rewriter) override {
    Derived::visit(rewriter, static_cast<Derived&>(*this));
  }

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

// ---- Searches --------------------------------------------------------------------------

// A search began (the user typed, a suggestion was taken, ...).
class NBStartSearchFeedback : public FeedbackRecord<NBStartSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartSearchFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSearchStartTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()
  std::optional<std::string> input;
  std::optional<std::string> uuid;  // names the search; its end carries it again
  uint64_t queryId = 0;             // the client's query identifier

  NBFeedbackType type() const override { return NBFeedbackType::kSearchStart; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override { return queryId; }

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("input", self.input);
    v("uuid", self.uuid);
    v("queryId", self.queryId);
  }
};

// A request to a search back-end went out.
class NBStartNetworkSearchFeedback
    : public FeedbackRecord<NBStartNetworkSearchFeedback, NBStartSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartNetworkSearchFeedback";
  static constexpr FeedbackTable endpointTypes() { return feedback_tables::kEndpointTypes; }

  std::optional<FeedbackStringMap> headers;
  std::optional<std::string> url;
  uint32_t endpoint = 0;  // endpointTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kNetworkSearchStart; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartSearchFeedback::visit(v, self);
    v("headers", self.headers);
    v("url", self.url);
    v.enumeration("endpoint_type", self.endpoint, endpointTypes());
  }
};

// A lookup request went out; its "trigger_event" is how the looked-up text was selected.
class ORVLookupStartNetworkSearchFeedback
    : public FeedbackRecord<ORVLookupStartNetworkSearchFeedback, NBStartNetworkSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVLookupStartNetworkSearchFeedback";
  static constexpr FeedbackTable lookupSelectionTypes() {
    return feedback_tables::kLookupSelectionTypes;
  }

  uint32_t lookupSelectionType = 0;  // lookupSelectionTypes()

  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartNetworkSearchFeedback::visit(v, self);
    v.enumeration("lookupSelectionType", self.lookupSelectionType, lookupSelectionTypes());
  }
};

// A search in a local index began.
class NBStartLocalSearchFeedback
    : public FeedbackRecord<NBStartLocalSearchFeedback, NBStartSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartLocalSearchFeedback";
  static constexpr FeedbackTable indexTypes() { return feedback_tables::kLocalIndexTypes; }

  uint32_t indexType = 0;  // indexTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kLocalSearchStart; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartSearchFeedback::visit(v, self);
    v.enumeration("index_type", self.indexType, indexTypes());
  }
};

// A search ended; `uuid` is that of its start.
class NBEndSearchFeedback : public FeedbackRecord<NBEndSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndSearchFeedback";

  std::optional<std::string> uuid;

  NBFeedbackType type() const override { return NBFeedbackType::kSearchEnd; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("uuid", self.uuid);
  }
};

// A request to a search back-end completed (or failed).
class NBEndNetworkSearchFeedback
    : public FeedbackRecord<NBEndNetworkSearchFeedback, NBEndSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndNetworkSearchFeedback";

  int64_t responseSize = 0;
  int64_t statusCode = 0;
  // The HTTP layer's timing data of the task (see http_types.h); none for a task that had none.
  std::optional<PlistDictionary> networkTimingData;

  NBFeedbackType type() const override { return NBFeedbackType::kNetworkSearchEnd; }
  bool requiresQueryId() const override { return false; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBEndSearchFeedback::visit(v, self);
    v("response_size", self.responseSize);
    v("status_code", self.statusCode);
    v("network_timing_data", self.networkTimingData);
  }
};

// The end of a request to the daemon's back-end, with what its answer said about itself.
class ORVEndNetworkSearchFeedback
    : public FeedbackRecord<ORVEndNetworkSearchFeedback, NBEndNetworkSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVEndNetworkSearchFeedback";

  std::optional<std::string> orvexStatus;
  double orvexDuration = 0;  // seconds
  std::optional<std::string> fbq;
  std::optional<std::string> orvexPartialClientIp;

  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBEndNetworkSearchFeedback::visit(v, self);
    v("orvex_status", self.orvexStatus);
    v("orvex_duration", self.orvexDuration);
    v("fbq", self.fbq);
    v("orvex_partial_client_ip", self.orvexPartialClientIp);
  }
};

class NBEndLocalSearchFeedback
    : public FeedbackRecord<NBEndLocalSearchFeedback, NBEndSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndLocalSearchFeedback";

  NBFeedbackType type() const override { return NBFeedbackType::kLocalSearchEnd; }
  bool requiresQueryId() const override { return false; }
};

// The daemon did not send a query (bag missing or disabled, query too short, ...).
class ORVSkipSearchFeedback : public FeedbackRecord<ORVSkipSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVSkipSearchFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSkipSearchReasons; }
  static constexpr uint32_t kLessThanMinimumQueryLength = 1;
  static constexpr uint32_t kBagDisabled = 2;
  static constexpr uint32_t kBagFetchFailed = 3;
  static constexpr uint32_t kCacheHit = 4;

  uint32_t triggerEvent = 0;  // eventTypes(): why the search was skipped
  std::optional<std::string> input;

  NBFeedbackType type() const override { return NBFeedbackType::kSkipOrvexSearch; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("input", self.input);
  }
};

// A query answered from the query cache; `uuid` is that of the cached answer.
class ORVCacheHitFeedback : public FeedbackRecord<ORVCacheHitFeedback, ORVSkipSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVCacheHitFeedback";

  std::optional<std::string> uuid;

  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    ORVSkipSearchFeedback::visit(v, self);
    v("uuid", self.uuid);
  }
};

// ---- What was shown ----------------------------------------------------------------------

class NBVisibleResultsFeedback : public FeedbackRecord<NBVisibleResultsFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleResultsFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kVisibleResultsTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()
  std::optional<std::vector<NBSearchResult>> results;

  NBFeedbackType type() const override { return NBFeedbackType::kVisibleResults; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("results", self.results);
  }
};

class NBResultsReceivedAfterTimeoutFeedback
    : public FeedbackRecord<NBResultsReceivedAfterTimeoutFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBResultsReceivedAfterTimeoutFeedback";

  std::optional<std::vector<NBSearchResult>> results;

  NBFeedbackType type() const override { return NBFeedbackType::kResultsReceivedAfterTimeout; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("results", self.results);
  }
};

class NBLateSectionsAppendedFeedback
    : public FeedbackRecord<NBLateSectionsAppendedFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBLateSectionsAppendedFeedback";

  std::optional<std::vector<NBResultSection>> sections;

  NBFeedbackType type() const override { return NBFeedbackType::kLateSectionsAppended; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("sections", self.sections);
  }
};

// How the client's ranker ordered the sections.
class NBRankingFeedback : public FeedbackRecord<NBRankingFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBRankingFeedback";

  double blendingDuration = 0;
  std::optional<std::vector<NBSectionRankingFeedback>> sections;

  NBFeedbackType type() const override { return NBFeedbackType::kRankSections; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("blending_duration", self.blendingDuration);
    v("sections", self.sections);
  }
};

// A ranking made by the daemon's ranker, with how the ranker did.
class ORVRankerFeedback : public FeedbackRecord<ORVRankerFeedback, NBRankingFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVRankerFeedback";

  bool rankerTimeout = false;
  int64_t rankerResults = 0;  // how many results it ranked
  double rankerDuration = 0;  // milliseconds

  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBRankingFeedback::visit(v, self);
    v("ranker_timeout", self.rankerTimeout);
    v("ranker_results", self.rankerResults);
    v("ranker_duration", self.rankerDuration);
  }
};

class NBVisibleSuggestionsFeedback
    : public FeedbackRecord<NBVisibleSuggestionsFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleSuggestionsFeedback";

  std::optional<std::vector<NBSearchSuggestion>> suggestions;

  NBFeedbackType type() const override { return NBFeedbackType::kVisibleSuggestions; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("suggestions", self.suggestions);
  }
};

class NBVisibleSectionHeaderFeedback
    : public FeedbackRecord<NBVisibleSectionHeaderFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleSectionHeaderFeedback";
  static constexpr FeedbackTable sectionHeaderTypes() {
    return feedback_tables::kSectionHeaderTypes;
  }

  std::optional<NBResultSection> section;
  uint32_t sectionHeaderType = 0;  // sectionHeaderTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kVisibleSectionHeader; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("section", self.section);
    v.enumeration("section_header_type", self.sectionHeaderType, sectionHeaderTypes());
  }
};

// A card came into view. Clients report it; it carries nothing beyond its kind.
class NBVisibleCardFeedback : public FeedbackRecord<NBVisibleCardFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleCardFeedback";

  NBFeedbackType type() const override { return NBFeedbackType::kVisibleCard; }
};

// ---- Engagement --------------------------------------------------------------------------

class NBResultEngagementFeedback : public FeedbackRecord<NBResultEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBResultEngagementFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kResultEngagementTriggers; }
  static constexpr FeedbackTable destinationTypes() {
    return feedback_tables::kResultEngagementDestinations;
  }
  static constexpr FeedbackTable actionTargets() {
    return feedback_tables::kResultEngagementActionTargets;
  }

  uint32_t triggerEvent = 0;  // eventTypes()
  uint32_t destination = 0;   // destinationTypes()
  std::optional<NBSearchResult> result;
  bool actionEngaged = false;  // the result's action button, not the result, was engaged
  uint32_t actionTarget = 0;   // actionTargets()

  NBFeedbackType type() const override { return NBFeedbackType::kResultEngagement; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override { return result ? result->queryId : 0; }
  void reportEngagement(SessionProcessingHelper& helper) const override;

  // The URL the engagement opened: that of the action's punch-out when the action was engaged,
  // else that of the result's punch-out.
  static std::optional<std::string> actionDestinationFromResult(const NBSearchResult& result,
                                                                bool actionEngaged,
                                                                uint32_t destination);

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v.enumeration("destination", self.destination, destinationTypes());
    v("result", self.result);
    v("actionEngaged", self.actionEngaged);
    v.enumeration("action_target", self.actionTarget, actionTargets());
  }
};

class NBCardSectionEngagementFeedback
    : public FeedbackRecord<NBCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBCardSectionEngagementFeedback";
  static constexpr FeedbackTable eventTypes() {
    return feedback_tables::kCardSectionEngagementTriggers;
  }
  static constexpr FeedbackTable cardTypes() { return feedback_tables::kCardTypes; }
  // Kept with the class for clients; the upload form takes the target from the destination.
  static constexpr FeedbackTable actionTargets() {
    return feedback_tables::kCardSectionActionTargets;
  }

  uint32_t triggerEvent = 0;    // eventTypes()
  uint32_t actionCardType = 0;  // cardTypes()
  std::optional<NBCardSection> cardSection;
  std::optional<NBPunchout> destination;
  uint32_t actionTarget = 0;  // actionTargets()

  NBFeedbackType type() const override { return NBFeedbackType::kCardEngagement; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v.enumeration("card_type", self.actionCardType, cardTypes());
    v("cardSection", self.cardSection);
    v("destination", self.destination);
    v.enumeration("actionTarget", self.actionTarget, actionTargets());
  }
};

// A tap on a maps card.
class NBMapsCardSectionEngagementFeedback
    : public FeedbackRecord<NBMapsCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBMapsCardSectionEngagementFeedback";
  static constexpr FeedbackTable feedbackTypes() { return feedback_tables::kMapCardFeedbackTypes; }

  uint32_t feedbackType = 0;  // feedbackTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kCardEngagement; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("action_target", self.feedbackType, feedbackTypes());
  }
};

// What became of a store product page opened from a card.
class NBStoreCardSectionEngagementFeedback
    : public FeedbackRecord<NBStoreCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStoreCardSectionEngagementFeedback";
  static constexpr FeedbackTable productPageResults() {
    return feedback_tables::kStoreProductPageResults;
  }

  uint32_t productPageResult = 0;  // productPageResults()

  NBFeedbackType type() const override { return NBFeedbackType::kCardEngagement; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("action_target", self.productPageResult, productPageResults());
  }
};

class NBSuggestionEngagementFeedback
    : public FeedbackRecord<NBSuggestionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSuggestionEngagementFeedback";

  std::optional<NBSearchSuggestion> suggestion;

  NBFeedbackType type() const override { return NBFeedbackType::kSuggestionEngagement; }
  FeedbackDictionary dictionary() const override;
  void reportEngagement(SessionProcessingHelper& helper) const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("suggestion", self.suggestion);
  }
};

class NBSectionEngagementFeedback : public FeedbackRecord<NBSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSectionEngagementFeedback";
  static constexpr FeedbackTable eventTypes() {
    return feedback_tables::kSectionEngagementTriggers;
  }

  std::optional<NBResultSection> section;
  uint32_t triggerEvent = 0;  // eventTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kSectionEngagement; }
  FeedbackDictionary dictionary() const override;
  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("section", self.section);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

class NBDidGoToSiteFeedback : public FeedbackRecord<NBDidGoToSiteFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBDidGoToSiteFeedback";

  std::optional<std::string> input;

  NBFeedbackType type() const override { return NBFeedbackType::kDidGoToSite; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("input", self.input);
  }
};

// ---- The search view and its input ---------------------------------------------------------

class NBSearchViewAppearFeedback : public FeedbackRecord<NBSearchViewAppearFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSearchViewAppearFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSearchViewAppearEvents; }

  uint32_t triggerEvent = 0;  // eventTypes()
  bool onLockScreen = false;
  bool isOverApp = false;

  NBFeedbackType type() const override { return NBFeedbackType::kSearchViewAppear; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("on_lock_screen", self.onLockScreen);
    v("is_over_app", self.isOverApp);
  }
};

class NBSearchViewDisappearFeedback
    : public FeedbackRecord<NBSearchViewDisappearFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSearchViewDisappearFeedback";
  static constexpr FeedbackTable eventTypes() {
    return feedback_tables::kSearchViewDisappearEvents;
  }

  uint32_t triggerEvent = 0;  // eventTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kSearchViewDisappear; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

class NBCardViewDisappearFeedback : public FeedbackRecord<NBCardViewDisappearFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBCardViewDisappearFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kCardViewDisappearEvents; }

  uint32_t triggerEvent = 0;  // eventTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kCardViewDisappear; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

class NBClearInputFeedback : public FeedbackRecord<NBClearInputFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBClearInputFeedback";
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kClearInputTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()

  NBFeedbackType type() const override { return NBFeedbackType::kClearInput; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

// ---- Errors and custom records -------------------------------------------------------------

class NBErrorFeedback : public FeedbackRecord<NBErrorFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBErrorFeedback";

  std::optional<OrvexError> error;

  NBFeedbackType type() const override { return NBFeedbackType::kError; }
  FeedbackDictionary dictionary() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("error", self.error);
  }
};

// {"reason", "code", "domain"} of `error`; an empty reason or domain is written as null.
FeedbackDictionary encodeErrorForJSON(const OrvexError& error);

// A record of the client's own making: its JSON object goes up as it is. The custom type picks
// the kind (0 custom_unknown, 1 custom_roamer_autofill, 2 custom_crowdsourcing, 3
// custom_glance_result_features); the connection routes each type its own way and ignores
// others, whose kind is custom_unknown.
class NBCustomFeedback : public FeedbackRecord<NBCustomFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBCustomFeedback";

  uint32_t customType = 0;
  nlohmann::json jsonFeedback = nlohmann::json::object();  // always an object

  NBFeedbackType type() const override;
  bool requiresQueryId() const override;
  FeedbackDictionary dictionary() const override;
  std::optional<std::string> invalidReason() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("customType", self.customType);
    v("jsonFeedback", self.jsonFeedback);
  }
};

}  // namespace orvex
