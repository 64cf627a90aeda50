#include "bench/search_session_records.h"

#include <string>

namespace orvex::bench {

NBSearchResult searchResult(int i) {
  NBSearchResult r;
  r.identifier = "result-" + std::to_string(i);
  r.rankingScore = 0.25 * (i % 7);
  r.type = i % 3 == 0 ? 2 : 1;
  r.topHit = i % 5 == 0 ? 1 : 0;
  r.sectionBundleIdentifier = "com.zelmor.web";
  r.customProperties = ORVCustomSearchResult{"fbr-" + std::to_string(i)};
  r.queryId = static_cast<uint64_t>(i / 10);
  r.punchout = NBPunchout{NBPunchout::Class::kNBPunchout, {}, {"https://news.example/a"}, {}};
  return r;
}

std::shared_ptr<NBStartSearchFeedback> searchStart(int query) {
  auto start = std::make_shared<NBStartSearchFeedback>();
  start->triggerEvent = 1;
  start->input = "weather in par" + std::to_string(query);
  start->uuid = "6F1A3C2E-0000-4000-8000-" + std::to_string(100000000000 + query);
  start->queryId = static_cast<uint64_t>(query);
  return start;
}

std::shared_ptr<NBStartNetworkSearchFeedback> networkRequest(const NBStartSearchFeedback& start,
                                                             int query) {
  auto request = std::make_shared<NBStartNetworkSearchFeedback>();
  request->input = start.input;
  request->url =
      "https://search.example/search?q=weather&locale=fr_FR&qid=" + std::to_string(query);
  request->headers = FeedbackStringMap{
      {"Accept", "application/json"}, {"User-Agent", "Glance/1"}, {"X-Zelmor-Geo", "48.85,2.29"}};
  request->endpoint = 6;
  return request;
}

std::shared_ptr<NBVisibleResultsFeedback> visibleResults(int query) {
  auto visible = std::make_shared<NBVisibleResultsFeedback>();
  visible->triggerEvent = 1;
  visible->results.emplace();
  for (int i = 0; i < 8; ++i) visible->results->push_back(searchResult(query * 10 + i));
  return visible;
}

}  // namespace orvex::bench
