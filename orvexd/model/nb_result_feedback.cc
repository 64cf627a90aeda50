#include "orvexd/model/nb_result_feedback.h"

namespace orvex {

uint64_t NBVisibleResultsFeedback::referencedClientQueryId() const {
  return firstResultQueryId(results);
}

uint64_t NBResultsReceivedAfterTimeoutFeedback::referencedClientQueryId() const {
  return firstResultQueryId(results);
}

uint64_t NBLateSectionsAppendedFeedback::referencedClientQueryId() const {
  return sections && !sections->empty() ? sections->front().firstResultQueryId() : 0;
}

uint64_t NBRankingFeedback::referencedClientQueryId() const {
  if (!sections || sections->empty()) return 0;
  const auto& results = sections->front().results;
  if (!results || results->empty() || !results->front().result) return 0;
  return results->front().result->queryId;
}

void NBVisibleSuggestionsFeedback::uploadSuggestionQuery(const NBVisibleSuggestionsFeedback& record,
                                                         FeedbackDictionary& d) {
  if (record.suggestions && !record.suggestions->empty()) {
    d.set("suggestion_query", FeedbackValue::text(record.suggestions->front().query));
  }
}

uint64_t NBVisibleSectionHeaderFeedback::referencedClientQueryId() const {
  return section ? section->firstResultQueryId() : 0;
}

}  // namespace orvex
