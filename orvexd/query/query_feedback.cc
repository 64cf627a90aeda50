#include "orvexd/query/query_feedback.h"

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/session_manager.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/network/network_feedback.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/diagnostic_data_reporter.h"

namespace orvex {

QueryFeedback::QueryFeedback(std::shared_ptr<Clock> clock,
                             std::shared_ptr<SessionManager> sessionManager, std::string userAgent,
                             const ORVRequest& request)
    : clock_(std::move(clock)),
      sessionManager_(std::move(sessionManager)),
      userAgent_(std::move(userAgent)),
      kind_(request.kind),
      queryId_(request.queryId),
      clientQueryId_(request.clientQueryId),
      triggerEvent_(request.triggerEvent),
      selectionType_(request.selectionType),
      queryString_(request.queryString) {}

uint64_t QueryFeedback::now() const { return monotonicNanoseconds(clock_->monotonicNow()); }

void QueryFeedback::add(FeedbackRecordPtr record) const {
  if (!sessionManager_) return;
  sessionManager_->addOrvexFeedback(OrvexFeedback::initWithFeedback(
      std::move(record), queryId_, std::nullopt, userAgent_, clientQueryId_));
}

void QueryFeedback::recordSkip(uint32_t reason) const {
  auto skip = std::make_shared<ORVSkipSearchFeedback>();
  skip->timestamp = now();
  skip->triggerEvent = reason;
  skip->input = queryString_;
  add(std::move(skip));
}

void QueryFeedback::recordCacheHit(const std::string& uuid) const {
  auto hit = std::make_shared<ORVCacheHitFeedback>();
  hit->timestamp = now();
  hit->triggerEvent = ORVSkipSearchFeedback::kCacheHit;
  hit->input = queryString_;
  hit->uuid = uuid;
  add(std::move(hit));
}

std::shared_ptr<const NBStartNetworkSearchFeedback> QueryFeedback::startNetworkFeedback(
    const HttpRequest& request, std::optional<std::string> input, uint32_t endpoint) const {
  std::shared_ptr<NBStartNetworkSearchFeedback> start;
  if (kind_ == ORVRequestKind::kLookup) {
    auto lookup = makeStartNetworkFeedback<ORVLookupStartNetworkSearchFeedback>(
        request, std::move(input), triggerEvent_, endpoint, clock_->monotonicNow());
    lookup->lookupSelectionType = selectionType_;
    start = std::move(lookup);
  } else {
    start = makeStartNetworkFeedback(request, std::move(input), triggerEvent_, endpoint,
                                     clock_->monotonicNow());
  }
  start->queryId = clientQueryId_;
  add(start);
  return start;
}

void QueryFeedback::endNetworkFeedback(
    const std::shared_ptr<const NBStartNetworkSearchFeedback>& start,
    const nlohmann::json* rawResponse, int64_t responseSize, int64_t statusCode,
    const TaskTimingData& timing) const {
  auto end = std::make_shared<ORVEndNetworkSearchFeedback>();
  end->timestamp = now();
  end->uuid = start->uuid;
  end->responseSize = responseSize;
  end->statusCode = statusCode;
  end->networkTimingData = timing;
  if (rawResponse != nullptr && rawResponse->is_object()) {
    if (auto status = rawResponse->find("status");
        status != rawResponse->end() && status->is_string()) {
      end->orvexStatus = status->get<std::string>();
    }
    if (auto fbq = rawResponse->find("fbq"); fbq != rawResponse->end() && fbq->is_string()) {
      end->fbq = fbq->get<std::string>();
    }
  }
  add(std::move(end));
}

void QueryFeedback::failSearchFeedback(
    const std::optional<OrvexError>& error,
    const std::shared_ptr<const NBStartNetworkSearchFeedback>& start, int64_t responseSize,
    int64_t statusCode, const TaskTimingData& timing) const {
  if (error) {
    if (auto key = createCounterKey(extractClientNameFromString(userAgent_),
                                    kORVCounterSuffixNoConnection)) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
    }
    auto record = std::make_shared<NBErrorFeedback>();
    record->timestamp = now();
    record->error = *error;
    add(std::move(record));
  }
  endNetworkFeedback(start, nullptr, responseSize, statusCode, timing);
}

void QueryFeedback::recordSearchResult(int64_t statusCode) const {
  // Unlike the other per-client counters, this one is kept per whole user agent.
  if (auto key = createCounterKey(userAgent_, std::string(kORVCounterSuffixFedAPICallServerStatus)
                                                  .append(std::to_string(statusCode)))) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
  }
}

}  // namespace orvex
