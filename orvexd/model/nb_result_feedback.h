// The feedback records of what was shown: results, late sections, how they were ranked,
// suggestions, section headers and cards. See feedback_record.h for what every record is and
// does.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "orvexd/model/feedback_record.h"
#include "orvexd/model/nb_search_records.h"

namespace orvex {

class NBVisibleResultsFeedback : public FeedbackRecord<NBVisibleResultsFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleResultsFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kVisibleResults;
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kVisibleResultsTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()
  std::optional<std::vector<NBSearchResult>> results;

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
  static constexpr NBFeedbackType kType = NBFeedbackType::kResultsReceivedAfterTimeout;

  std::optional<std::vector<NBSearchResult>> results;

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
  static constexpr NBFeedbackType kType = NBFeedbackType::kLateSectionsAppended;

  std::optional<std::vector<NBResultSection>> sections;

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
  static constexpr NBFeedbackType kType = NBFeedbackType::kRankSections;

  double blendingDuration = 0;
  std::optional<std::vector<NBSectionRankingFeedback>> sections;

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

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBRankingFeedback::visit(v, self);
    v.uploadConstant("ranker_did_rank", true);
    v("ranker_timeout", self.rankerTimeout);
    v("ranker_results", self.rankerResults);
    v("ranker_duration", self.rankerDuration);
  }
};

class NBVisibleSuggestionsFeedback
    : public FeedbackRecord<NBVisibleSuggestionsFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleSuggestionsFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kVisibleSuggestions;

  std::optional<std::vector<NBSearchSuggestion>> suggestions;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("suggestions", self.suggestions);
    v.uploadDerived(upload::by(self, uploadSuggestionQuery));
  }

 private:
  // "suggestion_query", the query of the first suggestion, when there is one.
  static void uploadSuggestionQuery(const NBVisibleSuggestionsFeedback& record,
                                    FeedbackDictionary& d);
};

class NBVisibleSectionHeaderFeedback
    : public FeedbackRecord<NBVisibleSectionHeaderFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleSectionHeaderFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kVisibleSectionHeader;
  static constexpr FeedbackTable sectionHeaderTypes() {
    return feedback_tables::kSectionHeaderTypes;
  }

  std::optional<NBResultSection> section;
  uint32_t sectionHeaderType = 0;  // sectionHeaderTypes()

  uint64_t referencedClientQueryId() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("section", self.section, upload::as("section_id", &NBResultSection::identifier));
    v.enumeration("section_header_type", self.sectionHeaderType, sectionHeaderTypes());
  }
};

// A card came into view. Clients report it; it carries nothing beyond its kind.
class NBVisibleCardFeedback : public FeedbackRecord<NBVisibleCardFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBVisibleCardFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kVisibleCard;
};

}  // namespace orvex
