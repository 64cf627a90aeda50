// One query of a client that goes to the back-end, from the moment its request is built until
// the client has its reply. Search, zero-keyword, more-results, card and lookup queries share
// this path: the request goes out on the main HTTP session, the answer is parsed within limits,
// its images are prefetched and the reply and the feedback that describes the exchange follow.
// How the kinds differ on this path is their NetworkQueryKind; what differs before the request
// exists (bag checks, the query cache) stays with ClientState.
//
// A query holds what its completion needs (the state, the request, the bag in force when it was
// built, the start record and the reply callback) until the completion has run, on the HTTP
// session's callback queue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/query/client_state.h"
#include "orvexd/query/query_feedback.h"

namespace orvex {

struct HttpDataResult;

struct NetworkQueryKind {
  uint32_t endpoint;  // the start record's endpoint type
  // Sent as a retryable request (no expiry, no delay on failure), rather than a plain task.
  bool retryable;
  // Tells the request factory a search was made, so downloads may carry the precise position.
  bool performedSearch;
  // Counted under "com.zelmor.orvexd.search".
  bool countsSearch;
  // The reply's raw response is an array holding the answer, and an HTTP error status or an
  // answer that is not JSON fails the query.
  bool answerInArray;
  // The end record is made before the client is answered.
  bool endBeforeReply;
  // The answer goes into the query cache, and the back-end may ask for a new bag.
  bool cachesAnswer;
  // Logged when the answer arrives (none: the search's own line) and when the fetch fails.
  const char* responseLog;
  const char* failureLog;
};

// The kind's path; search, zero-keyword, more-results, card and lookup have one.
const NetworkQueryKind& networkQueryKindFor(ORVRequestKind kind);

class NetworkQuery : public std::enable_shared_from_this<NetworkQuery> {
 public:
  // Sends `httpRequest` for `request` and answers `reply` when it completes. `input` is the
  // start record's input.
  static void start(std::shared_ptr<ClientState> state, Assembly& assembly,
                    const ORVRequest& request, HttpRequest httpRequest,
                    std::optional<std::string> input, std::shared_ptr<const ORVBag> bag,
                    QueryReply reply);

  NetworkQuery(std::shared_ptr<ClientState> state, Assembly& assembly, const ORVRequest& request,
               HttpRequest httpRequest, std::shared_ptr<const ORVBag> bag, QueryReply reply);

 private:
  void send(std::optional<std::string> input);
  void completed(HttpDataResult result);
  void answerInArray(HttpDataResult result, int64_t statusCode);
  void answerAsObject(HttpDataResult result, int64_t statusCode);
  void preloadImages(const nlohmann::json& answer) const;
  void handleForceFetch(const HttpResponse& response) const;

  const NetworkQueryKind& kind_;
  std::shared_ptr<ClientState> state_;
  Assembly& assembly_;
  const ORVRequest request_;
  // Moved into the query cache by the completion, its last reader.
  HttpRequest httpRequest_;
  const std::shared_ptr<const ORVBag> bag_;
  const QueryReply reply_;
  const QueryFeedback feedback_;
  std::shared_ptr<const NBStartNetworkSearchFeedback> start_;  // set by send(), before the task
};

}  // namespace orvex
