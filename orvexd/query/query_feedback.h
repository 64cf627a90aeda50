// The feedback one query of a client leaves in the client's session: why it was skipped, that
// the cache answered it, when its network request started and ended, and how it failed. Every
// record is wrapped with the query's ids and the client's user agent as they were when the
// query arrived.
//
// A plain value: copied into the completions that record the end of a request. Callable from
// any thread; the session manager queues the records on its own queue.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/base/orvex_error.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orv_request.h"

namespace orvex {

class Clock;
class SessionManager;

class QueryFeedback {
 public:
  QueryFeedback(std::shared_ptr<Clock> clock, std::shared_ptr<SessionManager> sessionManager,
                std::string userAgent, const ORVRequest& request);

  // A skip-search record with `reason` as its trigger event, the query string as its input.
  void recordSkip(uint32_t reason) const;
  // The query was answered from the query cache entry `uuid`.
  void recordCacheHit(const std::string& uuid) const;
  // The start of the query's network request to `endpoint`, recorded and returned: the end
  // record refers to it. A lookup's start carries the way its text was selected.
  std::shared_ptr<const NBStartNetworkSearchFeedback> startNetworkFeedback(
      const HttpRequest& request, std::optional<std::string> input, uint32_t endpoint) const;
  void endNetworkFeedback(const std::shared_ptr<const NBStartNetworkSearchFeedback>& start,
                          const nlohmann::json* rawResponse, int64_t responseSize,
                          int64_t statusCode, const TaskTimingData& timing) const;
  // A failed request: the error (when there is one, also counted as "noconnection" for the
  // client) and the end of the request.
  void failSearchFeedback(const std::optional<OrvexError>& error,
                          const std::shared_ptr<const NBStartNetworkSearchFeedback>& start,
                          int64_t responseSize, int64_t statusCode,
                          const TaskTimingData& timing) const;
  // Counts the back-end's answer status under the client's user agent.
  void recordSearchResult(int64_t statusCode) const;

 private:
  void add(FeedbackRecordPtr record) const;
  uint64_t now() const;

  std::shared_ptr<Clock> clock_;
  std::shared_ptr<SessionManager> sessionManager_;
  std::string userAgent_;
  ORVRequestKind kind_;
  int64_t queryId_;
  uint64_t clientQueryId_;
  uint32_t triggerEvent_;
  uint32_t selectionType_;
  std::string queryString_;
};

}  // namespace orvex
