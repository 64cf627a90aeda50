// A query from a client: one record for every kind, with the fields only some kinds use left
// empty by the others.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/model/url_query_item.h"

namespace orvex {

enum class ORVRequestKind {
  kSearch,        // ORVSearchRequest
  kZeroKeyword,   // ORVZeroKeywordRequest
  kMoreResults,   // ORVMoreResultsRequest
  kCard,          // ORVCardRequest
  kLookup,        // ORVLookupRequest
  kFlightSearch,  // ORVFlightSearchRequest
  kFlightLookup,  // ORVFlightLookupRequest
};

// The request kinds by the names clients use for them ("search", "zeroKeyword", ...).
constexpr std::string_view kindName(ORVRequestKind kind) {
  switch (kind) {
    case ORVRequestKind::kSearch:
      return "search";
    case ORVRequestKind::kZeroKeyword:
      return "zeroKeyword";
    case ORVRequestKind::kMoreResults:
      return "moreResults";
    case ORVRequestKind::kCard:
      return "card";
    case ORVRequestKind::kLookup:
      return "lookup";
    case ORVRequestKind::kFlightSearch:
      return "flightSearch";
    case ORVRequestKind::kFlightLookup:
      return "flightLookup";
  }
  return {};
}
inline constexpr ORVRequestKind kAllRequestKinds[] = {
    ORVRequestKind::kSearch,      ORVRequestKind::kZeroKeyword, ORVRequestKind::kMoreResults,
    ORVRequestKind::kCard,        ORVRequestKind::kLookup,      ORVRequestKind::kFlightSearch,
    ORVRequestKind::kFlightLookup};
constexpr std::optional<ORVRequestKind> kindFromName(std::string_view name) {
  for (const ORVRequestKind kind : kAllRequestKinds) {
    if (kindName(kind) == name) return kind;
  }
  return std::nullopt;
}

// The lookup selection types.
inline constexpr uint32_t kORVLookupSelectionExplicit = 1;
inline constexpr uint32_t kORVLookupSelectionHint = 2;

struct ORVRequest {
  ORVRequestKind kind = ORVRequestKind::kSearch;

  std::string queryString;
  int64_t queryId = 0;
  uint64_t clientQueryId = 0;
  uint32_t triggerEvent = 0;
  double scale = 0;  // the client's screen scale; 0 when unknown
  std::string keyboardInputMode;
  bool verboseReply = false;
  std::vector<URLQueryItem> queryItems;  // sent as the client gave them

  // Search: topics the client ranks highest.
  std::vector<std::string> topics;
  // More results: the URL the previous answer named.
  std::string moreResultsURL;
  // Lookup: the application asking, the domain hinted at, how the text was selected and the
  // text around the selection.
  std::string applicationBundleIdentifier;
  std::string hintDomain;
  uint32_t selectionType = 0;
  std::string contextText;
  // Flights.
  std::string flightQuery;
  std::string flightId;
};

}  // namespace orvex
