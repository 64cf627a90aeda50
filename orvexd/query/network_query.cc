#include "orvexd/query/network_query.h"

#include <algorithm>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/bag_controller.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/network/retryable_network_request.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/url_cache.h"

namespace orvex {

namespace {

// Searches, zero-keyword queries, more results and lookups go to endpoint 6 ("search"), cards to
// endpoint 11 ("card").
constexpr uint32_t kSearchEndpoint = 6;
constexpr uint32_t kCardEndpoint = 11;
// The first attempt of a retryable query, and the retries it may have.
constexpr unsigned kRetryableAttempt = 1;
constexpr unsigned kRetryableRetries = 3;
// An answer that is not JSON.
constexpr int64_t kJsonParseErrorCode = 3840;
// The largest answer parsed; the HTTP layer already refuses bodies over 64 MiB.
constexpr size_t kAnswerMaxBytes = size_t{16} << 20;
// How much of an answer that is not JSON goes into the log.
constexpr size_t kLoggedBodyBytes = 1024;

constexpr NetworkQueryKind kSearchKind{kSearchEndpoint, false, true,    true,   false,
                                       false,           true,  nullptr, nullptr};
constexpr NetworkQueryKind kZeroKeywordKind{
    kSearchEndpoint, false, false, false, false, false, false, "Got network response for zkw query",
    nullptr};
constexpr NetworkQueryKind kMoreResultsKind{
    kSearchEndpoint, true,    false,
    false,           true,    false,
    false,           nullptr, "More results fetch failed with HTTP status code %ld error %@"};
constexpr NetworkQueryKind kCardKind{
    kCardEndpoint, true,    false,
    false,         true,    false,
    false,         nullptr, "Card fetch failed with HTTP status code %ld error %@"};
constexpr NetworkQueryKind kLookupKind{
    kSearchEndpoint, true, true, false, false, true, false, "Got network response for lookup query",
    nullptr};

const OrvexLog& searchLog() { return OrvexLogForCategory(kOrvexLogSearch); }

std::string describeError(const std::optional<OrvexError>& error) {
  return error ? error->describe() : std::string("(null)");
}

}  // namespace

const NetworkQueryKind& networkQueryKindFor(ORVRequestKind kind) {
  static constexpr std::pair<ORVRequestKind, const NetworkQueryKind*> kKinds[] = {
      {ORVRequestKind::kZeroKeyword, &kZeroKeywordKind},
      {ORVRequestKind::kMoreResults, &kMoreResultsKind},
      {ORVRequestKind::kCard, &kCardKind},
      {ORVRequestKind::kLookup, &kLookupKind}};
  for (const auto& [candidate, path] : kKinds) {
    if (candidate == kind) return *path;
  }
  return kSearchKind;
}

NetworkQuery::NetworkQuery(std::shared_ptr<ClientState> state, Assembly& assembly,
                           const ORVRequest& request, HttpRequest httpRequest,
                           std::shared_ptr<const ORVBag> bag, QueryReply reply)
    : kind_(networkQueryKindFor(request.kind)),
      state_(std::move(state)),
      assembly_(assembly),
      request_(request),
      httpRequest_(std::move(httpRequest)),
      bag_(std::move(bag)),
      reply_(std::move(reply)),
      // The session manager drops records while the client's bag turns feedback off: the
      // query's are not even handed over then, which spares two wake-ups of a worker per query.
      feedback_(assembly.clock,
                bag_ && bag_->feedbackEnabled() ? state_->sessionManager() : nullptr,
                state_->userAgent(), request) {}

void NetworkQuery::start(std::shared_ptr<ClientState> state, Assembly& assembly,
                         const ORVRequest& request, HttpRequest httpRequest,
                         std::optional<std::string> input, std::shared_ptr<const ORVBag> bag,
                         QueryReply reply) {
  auto query =
      std::make_shared<NetworkQuery>(std::move(state), assembly, request, std::move(httpRequest),
                                     std::move(bag), std::move(reply));
  query->send(std::move(input));
}

void NetworkQuery::send(std::optional<std::string> input) {
  start_ = feedback_.startNetworkFeedback(httpRequest_, std::move(input), kind_.endpoint);
  auto completion = [self = shared_from_this()](HttpDataResult result) {
    self->completed(std::move(result));
  };
  std::shared_ptr<HttpTask> task;
  if (kind_.retryable) {
    task = dataTaskWithRetryableRequest(
        assembly_.urlSession, ORVRetryableNetworkRequest(httpRequest_, std::nullopt, false),
        kRetryableAttempt, kRetryableRetries, std::move(completion));
  } else {
    task = assembly_.urlSession->dataTask(httpRequest_, std::move(completion));
  }
  // A lookup is worth nothing once the panel that asked has had to render without it: its
  // request gives up at now + the bag's render time-out.
  if (request_.kind == ORVRequestKind::kLookup) {
    if (const auto seconds = bag_->searchRenderTimeout(); seconds && *seconds > 0) {
      const auto delay = std::chrono::duration_cast<Duration>(
          std::chrono::duration<double>(std::min(*seconds, 3600.0)));
      assembly_.clock->scheduleAfter(delay, [weakTask = std::weak_ptr<HttpTask>(task)] {
        if (auto running = weakTask.lock()) running->cancel();
      });
    }
  }
  task->resume();
  if (kind_.countsSearch) OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterSearch);
  if (kind_.performedSearch) state_->setPerformedSearch();
  state_->markNetworkRequest();
}

void NetworkQuery::completed(HttpDataResult result) {
  const int64_t statusCode = result.response ? result.response->statusCode : 0;
  if (result.response) feedback_.recordSearchResult(statusCode);
  if (kind_.responseLog != nullptr) {
    searchLog().log(kind_.responseLog);
  } else if (!kind_.answerInArray) {
    searchLog().log("Got network response for (id, query): (%lld, %@)",
                    static_cast<long long>(request_.queryId), request_.queryString);
  }
  if (request_.kind == ORVRequestKind::kSearch || request_.kind == ORVRequestKind::kMoreResults) {
    searchLog().debug("resp: %@", result.response
                                      ? std::to_string(statusCode) + " " + result.response->url
                                      : std::string("(null)"));
  }
  if (kind_.answerInArray) {
    answerInArray(std::move(result), statusCode);
  } else {
    answerAsObject(std::move(result), statusCode);
  }
}

void NetworkQuery::answerInArray(HttpDataResult result, int64_t statusCode) {
  const auto size = static_cast<int64_t>(result.data.size());
  if (result.error || !result.response || statusCode != 200) {
    searchLog().error(kind_.failureLog, static_cast<long>(statusCode), describeError(result.error));
    const OrvexError error = result.error.value_or(OrvexError(
        kORVErrorDomain, 500, "the back-end answered with status " + std::to_string(statusCode)));
    reply_(request_.queryId, std::nullopt, error);
    feedback_.failSearchFeedback(result.error, start_, size, statusCode, result.timing);
    return;
  }
  std::string problem;
  auto parsed = parseJsonWithinLimits(result.data, {kAnswerMaxBytes, kJsonMaxDepth}, &problem);
  if (parsed.is_discarded()) {
    searchLog().error(
        "Failed to deserialize card details for into a dictionary. Error: %@. Response data: "
        "\"%@\"",
        "the answer " + problem,
        toValidUtf8(std::string_view(result.data).substr(0, kLoggedBodyBytes)));
    const OrvexError error(kORVErrorDomain, kJsonParseErrorCode, "the answer is not valid JSON");
    reply_(request_.queryId, std::nullopt, error);
    feedback_.failSearchFeedback(error, start_, size, statusCode, result.timing);
    return;
  }
  preloadImages(parsed);
  ORVReply answer = state_->makeReply(request_, &httpRequest_, &*result.response);
  answer.rawResponse = jsonTextForBus("[" + parsed.dump() + "]");
  reply_(request_.queryId, std::move(answer), std::nullopt);
  feedback_.endNetworkFeedback(start_, &parsed, size, statusCode, result.timing);
}

void NetworkQuery::answerAsObject(HttpDataResult result, int64_t statusCode) {
  const auto size = static_cast<int64_t>(result.data.size());
  if (result.error || result.data.empty()) {
    searchLog().error("error with request %@", httpRequest_.url);
    reply_(request_.queryId, std::nullopt, result.error);
    feedback_.failSearchFeedback(result.error, start_, size, statusCode, result.timing);
    return;
  }
  if (!result.response) {
    searchLog().error("not http response? %@", httpRequest_.url);
    const OrvexError error(kORVErrorDomain, 500, "invalid response class");
    reply_(request_.queryId, std::nullopt, error);
    feedback_.failSearchFeedback(error, start_, size, statusCode, result.timing);
    return;
  }
  std::string problem;
  // Shared with the query cache rather than copied into it.
  const auto parsed = std::make_shared<const nlohmann::json>(
      parseJsonWithinLimits(result.data, {kAnswerMaxBytes, kJsonMaxDepth}, &problem));
  std::optional<OrvexError> parseError;
  ORVReply answer = state_->makeReply(request_, &httpRequest_, &*result.response);
  if (parsed->is_discarded()) {
    searchLog().error("error parsing the answer to %@: it %@", httpRequest_.url, problem);
    parseError = OrvexError(kORVErrorDomain, kJsonParseErrorCode, "the answer is not valid JSON");
    // Had the URL cache kept the answer, it would fail again at every later query: drop it.
    if (const auto& cache = assembly_.urlSession->configuration().urlCache) {
      cache->removeResponseForRequest(httpRequest_);
    }
  } else {
    preloadImages(*parsed);
    // Serialised once, for the reply and the cache alike.
    std::string text = parsed->dump();
    if (kind_.cachesAnswer) {
      state_->cacheResponse(parsed, text, std::move(httpRequest_), request_.queryString,
                            start_->uuid.value_or(""));
    }
    answer.rawResponse = jsonTextForBus(std::move(text));
  }
  const nlohmann::json* raw = parsed->is_discarded() ? nullptr : parsed.get();
  if (kind_.endBeforeReply)
    feedback_.endNetworkFeedback(start_, raw, size, statusCode, result.timing);
  reply_(request_.queryId, std::move(answer), parseError);
  if (!kind_.endBeforeReply) {
    feedback_.endNetworkFeedback(start_, raw, size, statusCode, result.timing);
  }
  if (kind_.cachesAnswer) handleForceFetch(*result.response);
}

// The images an answer names are fetched as it arrives, unless the client said it shows none.
void NetworkQuery::preloadImages(const nlohmann::json& answer) const {
  if (const auto config = state_->configuration(); config && config->dontPreloadImages) return;
  assembly_.clientStateManager->processImagesFromResponse(answer, bag_);
}

void NetworkQuery::handleForceFetch(const HttpResponse& response) const {
  const auto header = response.headers.find("X-Zelmor-ForceFetch");
  if (header == response.headers.end()) return;
  auto force =
      parseJsonWithinLimits<BagDictionary>(header->second, {kAnswerMaxBytes, kJsonMaxDepth});
  if (!force.is_discarded() && force.is_object()) {
    assembly_.bagController->forceFetchBag(force);
  } else {
    searchLog().error("Failed to deserialize X-Zelmor-ForceFetch header data into a dictionary: %@",
                      header->second);
  }
}

}  // namespace orvex
