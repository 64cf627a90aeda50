// A query from a client: one record for every kind, with the fields only some kinds use left
// empty by the others.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/name_table.h"
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

// The request kinds by the names clients use for them.
inline constexpr Named<ORVRequestKind> kRequestKindNames[] = {
    {ORVRequestKind::kSearch, "search"},
    {ORVRequestKind::kZeroKeyword, "zeroKeyword"},
    {ORVRequestKind::kMoreResults, "moreResults"},
    {ORVRequestKind::kCard, "card"},
    {ORVRequestKind::kLookup, "lookup"},
    {ORVRequestKind::kFlightSearch, "flightSearch"},
    {ORVRequestKind::kFlightLookup, "flightLookup"}};
constexpr std::string_view kindName(ORVRequestKind kind) {
  return nameOf(kRequestKindNames, kind).value_or("");
}
constexpr std::optional<ORVRequestKind> kindFromName(std::string_view name) {
  return valueNamed(kRequestKindNames, name);
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
