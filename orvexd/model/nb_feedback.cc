#include "orvexd/model/nb_feedback.h"

#include <array>

#include "orvexd/base/http_types.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/network_timing_formatter.h"
#include "orvexd/model/orvex_session_feedback.h"

namespace orvex {
namespace {

using feedback_codec::DecodeContext;
using feedback_codec::FieldReader;

FeedbackValue nameIn(FeedbackTable table, uint32_t value) {
  return FeedbackValue::name(table.nameAt(value));
}

// ---- Reading ------------------------------------------------------------------------------

template <class T, class Node>
FeedbackRecordPtr readRecord(const Node& form, DecodeContext& context) {
  auto record = std::make_shared<T>();
  FieldReader<Node> reader(form, context);
  T::visit(reader, *record);
  if (context.failed()) return nullptr;
  if (auto reason = record->invalidReason()) {
    context.fail(T::kClassName, *reason);
    return nullptr;
  }
  return record;
}

struct RecordClass {
  std::string_view name;
  FeedbackRecordPtr (*fromDBus)(const nlohmann::json&, DecodeContext&);
  FeedbackRecordPtr (*fromArchive)(const PlistValue&, DecodeContext&);
};

template <class... T>
constexpr std::array<RecordClass, sizeof...(T)> recordClasses() {
  return {
      RecordClass{T::kClassName, &readRecord<T, nlohmann::json>, &readRecord<T, PlistValue>}...};
}

constexpr auto kRecordClasses = recordClasses<
    NBFeedback, NBStartSearchFeedback, NBStartNetworkSearchFeedback,
    ORVLookupStartNetworkSearchFeedback, NBStartLocalSearchFeedback, NBEndSearchFeedback,
    NBEndNetworkSearchFeedback, ORVEndNetworkSearchFeedback, NBEndLocalSearchFeedback,
    ORVSkipSearchFeedback, ORVCacheHitFeedback, NBVisibleResultsFeedback,
    NBResultsReceivedAfterTimeoutFeedback, NBLateSectionsAppendedFeedback, NBRankingFeedback,
    ORVRankerFeedback, NBVisibleSuggestionsFeedback, NBVisibleSectionHeaderFeedback,
    NBVisibleCardFeedback, NBResultEngagementFeedback, NBCardSectionEngagementFeedback,
    NBMapsCardSectionEngagementFeedback, NBStoreCardSectionEngagementFeedback,
    NBSuggestionEngagementFeedback, NBSectionEngagementFeedback, NBDidGoToSiteFeedback,
    NBSearchViewAppearFeedback, NBSearchViewDisappearFeedback, NBCardViewDisappearFeedback,
    NBClearInputFeedback, NBErrorFeedback, NBCustomFeedback, OrvexSessionEndFeedback,
    OrvexSessionMissingResults, OrvexSessionMissingSuggestions, OrvexConnectionInvalidated>();

DecodeResult<FeedbackRecordPtr> readFailure(std::string_view form, std::string_view reason) {
  OrvexLogForCategory(kOrvexLogFeedbackErrors)
      .error("could not read a feedback record from its %@: %@", form, reason);
  return OrvexError(kORVErrorDomain, 500, "invalid feedback record: " + std::string(reason));
}

template <class Form>
DecodeResult<FeedbackRecordPtr> readForm(const typename Form::Node& form) {
  DecodeContext context;
  if (!feedback_codec::isObjectNode(form)) return readFailure(Form::kName, "not an object");
  const auto* name = feedback_codec::findField(form, "$class");
  std::string className;
  if (name == nullptr || feedback_codec::isNullNode(*name)) {
    return readFailure(Form::kName, "$class: missing");
  }
  if (!feedback_codec::decodeScalar(*name, className, context, "$class")) {
    return readFailure(Form::kName, context.error());
  }
  for (const RecordClass& recordClass : kRecordClasses) {
    if (recordClass.name != className) continue;
    FeedbackRecordPtr record;
    if constexpr (std::is_same_v<Form, feedback_codec::DBusForm>) {
      record = recordClass.fromDBus(form, context);
    } else {
      record = recordClass.fromArchive(form, context);
    }
    if (!record) return readFailure(Form::kName, context.error());
    return record;
  }
  return readFailure(Form::kName, "$class: \"" + className + "\" is no feedback record class");
}

// Adds the keys of a search start to `d`.
void addStartSearchKeys(const NBStartSearchFeedback& record, FeedbackDictionary& d) {
  d.set("trigger_event", nameIn(NBStartSearchFeedback::eventTypes(), record.triggerEvent));
  d.set("input", FeedbackValue::text(record.input));
  d.set("uuid", FeedbackValue::text(record.uuid));
}

uint64_t firstResultQueryId(const std::optional<std::vector<NBSearchResult>>& results) {
  return results && !results->empty() ? results->front().queryId : 0;
}

}  // namespace

// ---- NBFeedback -------------------------------------------------------------------------

FeedbackRecordPtr NBFeedback::process(SessionProcessingHelper& helper) const {
  reportEngagement(helper);
  std::unique_ptr<NBFeedback> copy = clone();
  IdentifierRewriter rewriter(helper);
  copy->rewriteIdentifiers(rewriter);
  if (!rewriter.changed()) return nullptr;
  return copy;
}

nlohmann::json NBFeedback::dbusForm() const {
  DBusFieldWriter writer;
  writer("$class", std::string(className()));
  writeFields(writer);
  return writer.take();
}

std::string NBFeedback::dbusText() const {
  return dbusForm().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

PlistDictionary NBFeedback::archiveForm() const {
  ArchiveFieldWriter writer;
  writer("$class", std::string(className()));
  writeFields(writer);
  return writer.takeObject();
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromDBusText(std::string_view text) {
  auto form = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (form.is_discarded()) return readFailure(feedback_codec::DBusForm::kName, "not JSON text");
  return fromDBusForm(form);
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromDBusForm(const nlohmann::json& form) {
  if (auto problem = feedback_codec::freeJsonProblem(form, feedback_codec::kMaxJsonDepth)) {
    return readFailure(feedback_codec::DBusForm::kName, *problem);
  }
  return readForm<feedback_codec::DBusForm>(form);
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromArchiveForm(const PlistValue& form) {
  return readForm<feedback_codec::ArchiveForm>(form);
}

std::vector<std::string_view> NBFeedback::recordClassNames() {
  std::vector<std::string_view> names;
  for (const RecordClass& recordClass : kRecordClasses) names.push_back(recordClass.name);
  return names;
}

// ---- Searches ---------------------------------------------------------------------------

FeedbackDictionary NBStartSearchFeedback::dictionary() const {
  FeedbackDictionary d(3);
  addStartSearchKeys(*this, d);
  return d;
}

FeedbackDictionary NBStartNetworkSearchFeedback::dictionary() const {
  FeedbackDictionary d(6);
  addStartSearchKeys(*this, d);
  if (headers) {
    FeedbackDictionary fields(headers->size());
    for (const auto& [name, value] : *headers) fields.setAnyKey(name, value);
    d.set("headers", std::move(fields));
  } else {
    d.set("headers", nullptr);
  }
  d.set("url", FeedbackValue::text(url));
  d.set("endpoint_type", nameIn(endpointTypes(), endpoint));
  return d;
}

FeedbackDictionary ORVLookupStartNetworkSearchFeedback::dictionary() const {
  FeedbackDictionary d = NBStartNetworkSearchFeedback::dictionary();
  d.set("trigger_event", nameIn(lookupSelectionTypes(), lookupSelectionType));
  return d;
}

FeedbackDictionary NBStartLocalSearchFeedback::dictionary() const {
  FeedbackDictionary d(4);
  addStartSearchKeys(*this, d);
  d.set("index_type", nameIn(indexTypes(), indexType));
  return d;
}

FeedbackDictionary NBEndSearchFeedback::dictionary() const {
  FeedbackDictionary d(9);
  d.set("uuid", FeedbackValue::text(uuid));
  return d;
}

FeedbackDictionary NBEndNetworkSearchFeedback::dictionary() const {
  FeedbackDictionary d = NBEndSearchFeedback::dictionary();
  d.set("response_size", responseSize);
  d.set("status_code", statusCode);
  if (!networkTimingData) {
    d.set("network_timing_data", nullptr);
    return d;
  }
  const PlistDictionary& timing = *networkTimingData;
  d.set("network_timing_data", formatNetworkTimingData(timing));
  const auto entry = [&timing](std::string_view name) -> const PlistValue* {
    const auto found = timing.find(std::string(kTaskTimingPrefix) + std::string(name));
    return found == timing.end() ? nullptr : &found->second;
  };
  bool reused = false;
  if (const PlistValue* value = entry(kTimingConnectionReused)) {
    if (auto flag = value->asBool()) {
      reused = *flag;
    } else if (auto number = value->asDouble()) {
      reused = *number != 0;
    }
  }
  d.set("connection_reused", reused);
  if (const PlistValue* value = entry(kTimingInterfaceIdentifier)) {
    if (const std::string* name = value->asString(); name != nullptr && !name->empty()) {
      d.set("interface", *name);
    }
  }
  if (const PlistValue* value = entry(kTimingPeerAddress)) {
    if (const PlistData* bytes = value->asData()) {
      if (std::string address = formatPeerAddress(*bytes); !address.empty()) {
        d.set("peer_address", std::move(address));
      }
    }
  }
  return d;
}

FeedbackDictionary ORVEndNetworkSearchFeedback::dictionary() const {
  FeedbackDictionary d = NBEndNetworkSearchFeedback::dictionary();
  d.set("orvex_status", FeedbackValue::text(orvexStatus));
  d.set("orvex_duration", orvexDuration);
  d.set("fbq", FeedbackValue::text(fbq));
  d.set("orvex_partial_client_ip", FeedbackValue::text(orvexPartialClientIp));
  return d;
}

FeedbackDictionary ORVSkipSearchFeedback::dictionary() const {
  FeedbackDictionary d(3);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  d.set("input", FeedbackValue::text(input));
  return d;
}

FeedbackDictionary ORVCacheHitFeedback::dictionary() const {
  FeedbackDictionary d = ORVSkipSearchFeedback::dictionary();
  d.set("uuid", FeedbackValue::text(uuid));
  return d;
}

// ---- What was shown -----------------------------------------------------------------------

FeedbackDictionary NBVisibleResultsFeedback::dictionary() const {
  FeedbackDictionary d(2);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  d.set("results", dictionariesOf(results));
  return d;
}

uint64_t NBVisibleResultsFeedback::referencedClientQueryId() const {
  return firstResultQueryId(results);
}

FeedbackDictionary NBResultsReceivedAfterTimeoutFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("results", dictionariesOf(results));
  return d;
}

uint64_t NBResultsReceivedAfterTimeoutFeedback::referencedClientQueryId() const {
  return firstResultQueryId(results);
}

FeedbackDictionary NBLateSectionsAppendedFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("sections", dictionariesOf(sections));
  return d;
}

uint64_t NBLateSectionsAppendedFeedback::referencedClientQueryId() const {
  return sections && !sections->empty() ? sections->front().firstResultQueryId() : 0;
}

FeedbackDictionary NBRankingFeedback::dictionary() const {
  FeedbackDictionary d(6);
  d.set("blending_duration", blendingDuration);
  d.set("sections", dictionariesOf(sections));
  return d;
}

uint64_t NBRankingFeedback::referencedClientQueryId() const {
  if (!sections || sections->empty()) return 0;
  const auto& results = sections->front().results;
  if (!results || results->empty() || !results->front().result) return 0;
  return results->front().result->queryId;
}

FeedbackDictionary ORVRankerFeedback::dictionary() const {
  FeedbackDictionary d = NBRankingFeedback::dictionary();
  d.set("ranker_did_rank", true);
  d.set("ranker_timeout", rankerTimeout);
  d.set("ranker_results", rankerResults);
  d.set("ranker_duration", rankerDuration);
  return d;
}

FeedbackDictionary NBVisibleSuggestionsFeedback::dictionary() const {
  FeedbackDictionary d(2);
  d.set("suggestions", dictionariesOf(suggestions));
  if (suggestions && !suggestions->empty()) {
    d.set("suggestion_query", FeedbackValue::text(suggestions->front().query));
  }
  return d;
}

FeedbackDictionary NBVisibleSectionHeaderFeedback::dictionary() const {
  FeedbackDictionary d(2);
  d.set("section_id", section ? FeedbackValue::text(section->identifier) : FeedbackValue());
  d.set("section_header_type", nameIn(sectionHeaderTypes(), sectionHeaderType));
  return d;
}

uint64_t NBVisibleSectionHeaderFeedback::referencedClientQueryId() const {
  return section ? section->firstResultQueryId() : 0;
}

// ---- Engagement -------------------------------------------------------------------------

std::optional<std::string> NBResultEngagementFeedback::actionDestinationFromResult(
    const NBSearchResult& result, bool actionEngaged, uint32_t /*destination*/) {
  const auto& punchout = actionEngaged ? result.actionPunchout : result.punchout;
  if (!punchout) return std::nullopt;
  return punchout->preferredOpenableURL();
}

FeedbackDictionary NBResultEngagementFeedback::dictionary() const {
  FeedbackDictionary d(4);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  d.set("destination", nameIn(destinationTypes(), destination));
  if (!result) {
    d.set("result", nullptr);
    return d;
  }
  FeedbackDictionary engaged(3);
  engaged.set("id", FeedbackValue::text(result->identifier));
  if (result->isOutsideEngineResult() && result->title) {
    engaged.set("third_party_suggestion", FeedbackValue::text(result->title->text));
  }
  if (actionEngaged) d.set("action_target", nameIn(actionTargets(), actionTarget));
  if (result->type == NBSearchResult::kTypeOrvex) {
    engaged.set("action_destination", FeedbackValue::text(actionDestinationFromResult(
                                          *result, actionEngaged, destination)));
  } else {
    engaged.set("action_destination", FeedbackValue::StaticName{"non_orvex_result"});
  }
  d.set("result", std::move(engaged));
  return d;
}

void NBResultEngagementFeedback::reportEngagement(SessionProcessingHelper& helper) const {
  if (result && result->identifier) helper.identifierExpanded(*result->identifier);
}

FeedbackDictionary NBCardSectionEngagementFeedback::dictionary() const {
  FeedbackDictionary d(4);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  d.set("card_type", nameIn(cardTypes(), actionCardType));
  if (cardSection && cardSection->recordClass == NBCardSection::Class::kNBDescriptionCardSection) {
    d.set("action_target", FeedbackValue::StaticName{"more"});
    return d;
  }
  if (destination && destination->recordClass == NBPunchout::Class::kORVPunchout &&
      destination->actionTarget) {
    d.set("action_target", *destination->actionTarget);
  } else {
    d.set("action_target", FeedbackValue::StaticName{"unknown"});
  }
  d.set("action_destination",
        destination ? FeedbackValue::text(destination->preferredOpenableURL()) : FeedbackValue());
  return d;
}

FeedbackDictionary NBMapsCardSectionEngagementFeedback::dictionary() const {
  FeedbackDictionary d(3);
  d.set("trigger_event", FeedbackValue::StaticName{"tap"});
  d.set("card_type", FeedbackValue::StaticName{"maps"});
  d.set("action_target", nameIn(feedbackTypes(), feedbackType));
  return d;
}

FeedbackDictionary NBStoreCardSectionEngagementFeedback::dictionary() const {
  FeedbackDictionary d(3);
  d.set("trigger_event", FeedbackValue::StaticName{"tap"});
  d.set("card_type", FeedbackValue::StaticName{"songvault_sheet"});
  d.set("action_target", nameIn(productPageResults(), productPageResult));
  return d;
}

FeedbackDictionary NBSuggestionEngagementFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("id", suggestion ? FeedbackValue::text(suggestion->identifier) : FeedbackValue());
  return d;
}

void NBSuggestionEngagementFeedback::reportEngagement(SessionProcessingHelper& helper) const {
  if (suggestion && suggestion->identifier) helper.identifierExpanded(*suggestion->identifier);
}

FeedbackDictionary NBSectionEngagementFeedback::dictionary() const {
  FeedbackDictionary d(2);
  d.set("id", section ? FeedbackValue::text(section->identifier) : FeedbackValue());
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  return d;
}

uint64_t NBSectionEngagementFeedback::referencedClientQueryId() const {
  return section ? section->firstResultQueryId() : 0;
}

FeedbackDictionary NBDidGoToSiteFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("input", FeedbackValue::text(input));
  return d;
}

// ---- The search view and its input ----------------------------------------------------------

FeedbackDictionary NBSearchViewAppearFeedback::dictionary() const {
  FeedbackDictionary d(3);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  d.set("on_lock_screen", onLockScreen);
  d.set("is_over_app", isOverApp);
  return d;
}

FeedbackDictionary NBSearchViewDisappearFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  return d;
}

FeedbackDictionary NBCardViewDisappearFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  return d;
}

FeedbackDictionary NBClearInputFeedback::dictionary() const {
  FeedbackDictionary d(1);
  d.set("trigger_event", nameIn(eventTypes(), triggerEvent));
  return d;
}

// ---- Errors and custom records ------------------------------------------------------------

FeedbackDictionary encodeErrorForJSON(const OrvexError& error) {
  FeedbackDictionary d(3);
  d.set("reason", error.reason.empty() ? FeedbackValue() : FeedbackValue(error.reason));
  d.set("code", error.code);
  d.set("domain", error.domain.empty() ? FeedbackValue() : FeedbackValue(error.domain));
  return d;
}

FeedbackDictionary NBErrorFeedback::dictionary() const {
  FeedbackDictionary d(2);
  if (!error) {
    d.set("error", nullptr);
    return d;
  }
  d.set("error", encodeErrorForJSON(*error));
  if (error->underlying) d.set("underlying_error", encodeErrorForJSON(*error->underlying));
  return d;
}

NBFeedbackType NBCustomFeedback::type() const {
  if (customType < feedback_tables::kCustomFeedbackTypes.size()) {
    return feedback_tables::kCustomFeedbackTypes[customType];
  }
  return NBFeedbackType::kCustomUnknown;
}

bool NBCustomFeedback::requiresQueryId() const {
  return type() != NBFeedbackType::kCustomGlanceResultFeatures;
}

FeedbackDictionary NBCustomFeedback::dictionary() const {
  FeedbackDictionary d(jsonFeedback.size() + 4);
  if (jsonFeedback.is_object()) {
    for (const auto& [name, value] : jsonFeedback.items()) d.setAnyKey(name, value);
  }
  return d;
}

std::optional<std::string> NBCustomFeedback::invalidReason() const {
  if (!jsonFeedback.is_object()) return "jsonFeedback: not an object";
  return std::nullopt;
}

}  // namespace orvex
