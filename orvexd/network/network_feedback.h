// The record the daemon makes when one of its own requests goes out (a search, a bag fetch, a
// warm-up): what was asked, where, and why. Its uuid ties it to the record of the answer.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

template <class Record = NBStartNetworkSearchFeedback>
std::shared_ptr<Record> makeStartNetworkFeedback(const HttpRequest& request,
                                                 std::optional<std::string> input,
                                                 uint32_t triggerEvent, uint32_t endpoint,
                                                 MonotonicTime now) {
  auto start = std::make_shared<Record>();
  start->timestamp = monotonicNanoseconds(now);
  start->input = std::move(input);
  start->url = request.url;
  start->headers = FeedbackStringMap(request.headers.begin(), request.headers.end());
  start->triggerEvent = triggerEvent;
  start->endpoint = endpoint;
  start->uuid = Uuid::random().upperString();
  return start;
}

}  // namespace orvex
