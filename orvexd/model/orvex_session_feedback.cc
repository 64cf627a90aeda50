#include "orvexd/model/orvex_session_feedback.h"

namespace orvex {

OrvexSessionMissingResults OrvexSessionMissingResults::initWithMissingResults(
    std::vector<NBSearchResult> results) {
  OrvexSessionMissingResults record;
  record.results = std::move(results);
  return record;
}

OrvexSessionMissingSuggestions OrvexSessionMissingSuggestions::initWithMissingSuggestions(
    std::vector<NBSearchSuggestion> suggestions) {
  OrvexSessionMissingSuggestions record;
  record.suggestions = std::move(suggestions);
  return record;
}

}  // namespace orvex
