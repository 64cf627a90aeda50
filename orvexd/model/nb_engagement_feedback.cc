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
  if (!record.result) {
    d.set("result", nullptr);
    return;
  }
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

}  // namespace orvex
