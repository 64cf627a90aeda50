// Feedback records as a search front-end makes them, for the benchmarks that encode and store
// sessions: per query a start, its network request and the visible results.
#pragma once

#include <memory>

#include "orvexd/model/orvex_feedback.h"

namespace orvex::bench {

// The `i`th result of a session: a web result with custom properties and a punch-out.
NBSearchResult searchResult(int i);

// The start of query number `query`.
std::shared_ptr<NBStartSearchFeedback> searchStart(int query);
// The network request of the search `start` for query number `query`.
std::shared_ptr<NBStartNetworkSearchFeedback> networkRequest(const NBStartSearchFeedback& start,
                                                             int query);
// The eight results shown for query number `query`.
std::shared_ptr<NBVisibleResultsFeedback> visibleResults(int query);

}  // namespace orvex::bench
