#include "orvexd/model/nb_engagement_feedback.h"

namespace orvex {

std::optional<std::string> NBResultEngagementFeedback::actionDestinationFromResult(
    const NBSearchResult& result, bool actionEngaged, uint32_t /*destination*/) {
  const auto& punchout = actionEngaged ? result.actionPunchout : result.punchout;
  if (!punchout) return std::nullopt;
  return punchout->preferredOpenableURL();
}

void NBResultEngagementFeedback::uploadResult(const NBResultEngagementFeedback& record,
                                              FeedbackDictionary& d) {
  if (!d.nullUnless("result", record.result)) return;
  const NBSearchResult& result = *record.result;
  FeedbackDictionary engaged(3);
  engaged.set("id", FeedbackValue::text(result.identifier));
  if (result.isOutsideEngineResult() && result.title) {
    engaged.set("third_party_suggestion", FeedbackValue::text(result.title->text));
  }
  if (result.type == NBSearchResult::kTypeOrvex) {
    engaged.set("action_destination", FeedbackValue::text(actionDestinationFromResult(
                                          result, record.actionEngaged, record.destination)));
  } else {
    engaged.set("action_destination", FeedbackValue::StaticName{"non_orvex_result"});
  }
  d.set("result", std::move(engaged));
}

void NBResultEngagementFeedback::reportEngagement(SessionProcessingHelper& helper) const {
  if (result && result->identifier) helper.identifierExpanded(*result->identifier);
}

void NBCardSectionEngagementFeedback::uploadAction(const NBCardSectionEngagementFeedback& record,
                                                   FeedbackDictionary& d) {
  const auto& section = record.cardSection;
  if (section && section->recordClass == NBCardSection::Class::kNBDescriptionCardSection) {
    d.set("action_target", FeedbackValue::StaticName{"more"});
    return;
  }
  const auto& destination = record.destination;
  if (destination && destination->recordClass == NBPunchout::Class::kORVPunchout &&
      destination->actionTarget) {
    d.set("action_target", *destination->actionTarget);
  } else {
    d.set("action_target", FeedbackValue::StaticName{"unknown"});
  }
  d.set("action_destination",
        destination ? FeedbackValue::text(destination->preferredOpenableURL()) : FeedbackValue());
}

void NBSuggestionEngagementFeedback::reportEngagement(SessionProcessingHelper& helper) const {
  if (suggestion && suggestion->identifier) helper.identifierExpanded(*suggestion->identifier);
}

uint64_t NBSectionEngagementFeedback::referencedClientQueryId() const {
  return section ? section->firstResultQueryId() : 0;
}

void NBErrorFeedback::uploadError(const NBErrorFeedback& record, FeedbackDictionary& d) {
  if (!d.nullUnless("error", record.error)) return;
  d.set("error", encodeErrorForJSON(*record.error));
  if (record.error->underlying) {
    d.set("underlying_error", encodeErrorForJSON(*record.error->underlying));
  }
}

FeedbackDictionary encodeErrorForJSON(const OrvexError& error) {
  FeedbackDictionary d(3);
  d.set("reason", error.reason.empty() ? FeedbackValue() : FeedbackValue(error.reason));
  d.set("code", error.code);
  d.set("domain", error.domain.empty() ? FeedbackValue() : FeedbackValue(error.domain));
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

void NBCustomFeedback::uploadJsonFeedback(const NBCustomFeedback& record, FeedbackDictionary& d) {
  if (!record.jsonFeedback.is_object()) return;
  for (const auto& [name, value] : record.jsonFeedback.items()) d.setAnyKey(name, value);
}

std::optional<std::string> NBCustomFeedback::invalidReason() const {
  if (!jsonFeedback.is_object()) return "jsonFeedback: not an object";
  return std::nullopt;
}

}  // namespace orvex
