#include "orvexd/model/orvex_session_feedback.h"

namespace orvex {

FeedbackDictionary OrvexSessionEndFeedback::dictionary() const {
  FeedbackDictionary d(4);
  d.set("reason", FeedbackValue::name(reasons().nameAt(reason)));
  return d;
}

OrvexSessionMissingResults OrvexSessionMissingResults::initWithMissingResults(
    std::vector<NBSearchResult> results) {
  OrvexSessionMissingResults record;
  record.results = std::move(results);
  return record;
}

FeedbackDictionary OrvexSessionMissingResults::dictionary() const {
  FeedbackDictionary d(3);
  d.set("results", dictionariesOf(results));
  return d;
}

OrvexSessionMissingSuggestions OrvexSessionMissingSuggestions::initWithMissingSuggestions(
    std::vector<NBSearchSuggestion> suggestions) {
  OrvexSessionMissingSuggestions record;
  record.suggestions = std::move(suggestions);
  return record;
}

FeedbackDictionary OrvexSessionMissingSuggestions::dictionary() const {
  FeedbackDictionary d(3);
  d.set("suggestions", dictionariesOf(suggestions));
  return d;
}

}  // namespace orvex
