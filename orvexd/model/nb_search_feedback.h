// The feedback records of searches: a search's start and end, those of its requests to a search
// back-end or a local index, and the searches the daemon did not send. See feedback_record.h for
// what every record is and does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/property_list.h"
#include "orvexd/model/feedback_record.h"

namespace orvex {

// A search began (the user typed, a suggestion was taken, ...).
class NBStartSearchFeedback : public FeedbackRecord<NBStartSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSearchStart;
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSearchStartTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()
  std::optional<std::string> input;
  std::optional<std::string> uuid;  // names the search; its end carries it again
  uint64_t queryId = 0;             // the client's query identifier

  uint64_t referencedClientQueryId() const override { return queryId; }

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("input", self.input);
    v("uuid", self.uuid);
    v("queryId", self.queryId, upload::skip);
  }
};

// A request to a search back-end went out.
class NBStartNetworkSearchFeedback
    : public FeedbackRecord<NBStartNetworkSearchFeedback, NBStartSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartNetworkSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kNetworkSearchStart;
  static constexpr FeedbackTable endpointTypes() { return feedback_tables::kEndpointTypes; }

  std::optional<FeedbackStringMap> headers;
  std::optional<std::string> url;
  uint32_t endpoint = 0;  // endpointTypes()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartSearchFeedback::visit(v, self);
    v("headers", self.headers);
    v("url", self.url);
    v.enumeration("endpoint_type", self.endpoint, endpointTypes());
  }
};

// A lookup request went out; its uploaded "trigger_event" is how the looked-up text was
// selected.
class ORVLookupStartNetworkSearchFeedback
    : public FeedbackRecord<ORVLookupStartNetworkSearchFeedback, NBStartNetworkSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVLookupStartNetworkSearchFeedback";
  static constexpr FeedbackTable lookupSelectionTypes() {
    return feedback_tables::kLookupSelectionTypes;
  }

  uint32_t lookupSelectionType = 0;  // lookupSelectionTypes()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartNetworkSearchFeedback::visit(v, self);
    v.enumeration("lookupSelectionType", self.lookupSelectionType, lookupSelectionTypes(),
                  upload::as("trigger_event"));
  }
};

// A search in a local index began.
class NBStartLocalSearchFeedback
    : public FeedbackRecord<NBStartLocalSearchFeedback, NBStartSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBStartLocalSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kLocalSearchStart;
  static constexpr FeedbackTable indexTypes() { return feedback_tables::kLocalIndexTypes; }

  uint32_t indexType = 0;  // indexTypes()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBStartSearchFeedback::visit(v, self);
    v.enumeration("index_type", self.indexType, indexTypes());
  }
};

// A search ended; `uuid` is that of its start.
class NBEndSearchFeedback : public FeedbackRecord<NBEndSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSearchEnd;

  std::optional<std::string> uuid;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("uuid", self.uuid);
  }
};

// A request to a search back-end completed (or failed).
class NBEndNetworkSearchFeedback
    : public FeedbackRecord<NBEndNetworkSearchFeedback, NBEndSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndNetworkSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kNetworkSearchEnd;
  static constexpr bool kRequiresQueryId = false;

  int64_t responseSize = 0;
  int64_t statusCode = 0;
  // The HTTP layer's timing data of the task (see http_types.h); none for a task that had none.
  std::optional<PlistDictionary> networkTimingData;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBEndSearchFeedback::visit(v, self);
    v("response_size", self.responseSize);
    v("status_code", self.statusCode);
    v("network_timing_data", self.networkTimingData, upload::by(self, uploadTimingData));
  }

 private:
  // "network_timing_data" (see network_timing_formatter.h), and with timing data whether the
  // connection was reused, and its interface and peer address when the data names them.
  static void uploadTimingData(const NBEndNetworkSearchFeedback& record, FeedbackDictionary& d);
};

// The end of a request to the daemon's back-end, with what its answer said about itself.
class ORVEndNetworkSearchFeedback
    : public FeedbackRecord<ORVEndNetworkSearchFeedback, NBEndNetworkSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVEndNetworkSearchFeedback";

  std::optional<std::string> orvexStatus;
  double orvexDuration = 0;  // seconds
  std::optional<std::string> fbq;
  std::optional<std::string> orvexPartialClientIp;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBEndNetworkSearchFeedback::visit(v, self);
    v("orvex_status", self.orvexStatus);
    v("orvex_duration", self.orvexDuration);
    v("fbq", self.fbq);
    v("orvex_partial_client_ip", self.orvexPartialClientIp);
  }
};

class NBEndLocalSearchFeedback
    : public FeedbackRecord<NBEndLocalSearchFeedback, NBEndSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBEndLocalSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kLocalSearchEnd;
  static constexpr bool kRequiresQueryId = false;
};

// The daemon did not send a query (bag missing or disabled, query too short, ...).
class ORVSkipSearchFeedback : public FeedbackRecord<ORVSkipSearchFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVSkipSearchFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kSkipOrvexSearch;
  static constexpr FeedbackTable eventTypes() { return feedback_tables::kSkipSearchReasons; }
  static constexpr uint32_t kLessThanMinimumQueryLength = 1;
  static constexpr uint32_t kBagDisabled = 2;
  static constexpr uint32_t kBagFetchFailed = 3;
  static constexpr uint32_t kCacheHit = 4;

  uint32_t triggerEvent = 0;  // eventTypes(): why the search was skipped
  std::optional<std::string> input;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
    v("input", self.input);
  }
};

// A query answered from the query cache; `uuid` is that of the cached answer.
class ORVCacheHitFeedback : public FeedbackRecord<ORVCacheHitFeedback, ORVSkipSearchFeedback> {
 public:
  static constexpr std::string_view kClassName = "ORVCacheHitFeedback";

  std::optional<std::string> uuid;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    ORVSkipSearchFeedback::visit(v, self);
    v("uuid", self.uuid);
  }
};

}  // namespace orvex
