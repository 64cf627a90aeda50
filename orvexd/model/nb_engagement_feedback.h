// The feedback records the client reports of its own: what the user did (engaging a result, a
// card, a suggestion or a section, going to a site, the search view coming and going and its
// input being cleared), errors it met, and custom records whose JSON object goes up as it is.
// See feedback_record.h for what every record is and does.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/orvex_error.h"
#include "orvexd/model/feedback_record.h"
#include "orvexd/model/nb_search_records.h"

namespace orvex {

// ---- Engagement --------------------------------------------------------------------------

class NBResultEngagementFeedback : public FeedbackRecord<NBResultEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBResultEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kResultEngagement;
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

  uint64_t referencedClientQueryId() const override { return result ? result->queryId : 0; }
  void reportEngagement(SessionProcessingHelper& helper) const override;

  // The URL the engagement opened: that of the action's punch-out when the action was engaged,
  // else that of the result's punch-out.
  static std::optional<std::string> actionDestinationFromResult(const NBSearchResult& result,
                                                                bool actionEngaged,
                                                                uint32_t destination);

  // The action's target is uploaded, before the result, for an engaged action of a result.
  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v.enumeration("destination", self.destination, destinationTypes());
    v("actionEngaged", self.actionEngaged, upload::skip);
    v.enumeration("action_target", self.actionTarget, actionTargets(),
                  upload::when(self.actionEngaged && self.result));
    v("result", self.result, upload::by(self, uploadResult));
  }

 private:
  // "result": its identifier, where the tap led and, for a result of an outside search engine,
  // its title; null without a result.
  static void uploadResult(const NBResultEngagementFeedback& record, FeedbackDictionary& d);
};

class NBCardSectionEngagementFeedback
    : public FeedbackRecord<NBCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBCardSectionEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kCardEngagement;
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

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v.enumeration("card_type", self.actionCardType, cardTypes());
    v("cardSection", self.cardSection, upload::skip);  // read by uploadAction
    v("destination", self.destination, upload::by(self, uploadAction));
    v.enumeration("actionTarget", self.actionTarget, actionTargets(), upload::skip);
  }

 private:
  // "action_target": "more" for a description section, else the destination's target; and
  // "action_destination", the URL the destination opens, unless the section was a description.
  static void uploadAction(const NBCardSectionEngagementFeedback& record, FeedbackDictionary& d);
};

// A tap on a maps card.
class NBMapsCardSectionEngagementFeedback
    : public FeedbackRecord<NBMapsCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBMapsCardSectionEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kCardEngagement;
  static constexpr FeedbackTable feedbackTypes() { return feedback_tables::kMapCardFeedbackTypes; }

  uint32_t feedbackType = 0;  // feedbackTypes()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.uploadConstant("trigger_event", "tap");
    v.uploadConstant("card_type", "maps");
    v.enumeration("action_target", self.feedbackType, feedbackTypes());
  }
};

// What became of a store product page opened from a card.
class NBStoreCardSectionEngagementFeedback
    : public FeedbackRecord<NBStoreCardSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStoreCardSectionEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kCardEngagement;
  static constexpr FeedbackTable productPageResults() {
    return feedback_tables::kStoreProductPageResults;
  }

  uint32_t productPageResult = 0;  // productPageResults()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.uploadConstant("trigger_event", "tap");
    v.uploadConstant("card_type", "songvault_sheet");
    v.enumeration("action_target", self.productPageResult, productPageResults());
  }
};

class NBSuggestionEngagementFeedback
    : public FeedbackRecord<NBSuggestionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSuggestionEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSuggestionEngagement;

  std::optional<NBSearchSuggestion> suggestion;

  void reportEngagement(SessionProcessingHelper& helper) const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("suggestion", self.suggestion, upload::as("id", &NBSearchSuggestion::identifier));
  }
};

class NBSectionEngagementFeedback : public FeedbackRecord<NBSectionEngagementFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBSectionEngagementFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSectionEngagement;
  static constexpr FeedbackTable eventTypes() {
    return feedback_tables::kSectionEngagementTriggers;
  }

  std::optional<NBResultSection> section;
  uint32_t triggerEvent = 0;  // eventTypes()

  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("section", self.section, upload::as("id", &NBResultSection::identifier));
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

class NBDidGoToSiteFeedback : public FeedbackRecord<NBDidGoToSiteFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBDidGoToSiteFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kDidGoToSite;

  std::optional<std::string> input;

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
  static constexpr NBFeedbackType kType = NBFeedbackType::kSearchViewAppear;
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSearchViewAppearEvents; }

  uint32_t triggerEvent = 0;  // eventTypes()
  bool onLockScreen = false;
  bool isOverApp = false;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("on_lock_screen", self.onLockScreen);
    v("is_over_app", self.isOverApp);
  }
};

class NBSearchViewDisappearFeedback
    : public TriggerFeedback<NBSearchViewDisappearFeedback,
                             feedback_tables::kSearchViewDisappearEvents> {
 public:
  static constexpr std::string_view kClassName = "NBSearchViewDisappearFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSearchViewDisappear;
};

class NBCardViewDisappearFeedback
    : public TriggerFeedback<NBCardViewDisappearFeedback,
                             feedback_tables::kCardViewDisappearEvents> {
 public:
  static constexpr std::string_view kClassName = "NBCardViewDisappearFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kCardViewDisappear;
};

class NBClearInputFeedback
    : public TriggerFeedback<NBClearInputFeedback, feedback_tables::kClearInputTriggers> {
 public:
  static constexpr std::string_view kClassName = "NBClearInputFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kClearInput;
};

// ---- What the client says in its own terms -------------------------------------------------

class NBErrorFeedback : public FeedbackRecord<NBErrorFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBErrorFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kError;

  std::optional<OrvexError> error;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("error", self.error, upload::by(self, uploadError));
  }

 private:
  // "error" (null without one) and, when it has one, "underlying_error".
  static void uploadError(const NBErrorFeedback& record, FeedbackDictionary& d);
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
  std::optional<std::string> invalidReason() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("customType", self.customType, upload::skip);
    v("jsonFeedback", self.jsonFeedback, upload::by(self, uploadJsonFeedback));
  }

 private:
  // Every entry of the client's object, under its own key.
  static void uploadJsonFeedback(const NBCustomFeedback& record, FeedbackDictionary& d);
};

}  // namespace orvex
