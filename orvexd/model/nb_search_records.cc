#include "orvexd/model/nb_search_records.h"

#include <algorithm>
#include <cctype>

namespace orvex {
namespace {

// Whether `url` begins with a scheme ("https:", "maps:"), as an absolute URL does.
bool hasScheme(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == 0 || colon == std::string_view::npos) return false;
  if (!std::isalpha(static_cast<unsigned char>(url[0]))) return false;
  return std::all_of(url.begin(), url.begin() + colon, [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  });
}

}  // namespace

std::optional<std::string> NBPunchout::preferredOpenableURL() const {
  for (const auto& url : urls) {
    if (hasScheme(url)) return url;
  }
  return std::nullopt;
}

void NBSearchResult::uploadBundleId(const NBSearchResult& result, FeedbackDictionary& d) {
  const auto& bundle =
      result.resultBundleId ? result.resultBundleId : result.applicationBundleIdentifier;
  if (bundle && result.isLocalApplicationResult) {
    d.set("bundle_id", FeedbackValue::StaticName{kLocalApplicationBundleId});
  } else {
    d.set("bundle_id", FeedbackValue::text(bundle));
  }
}

uint64_t firstResultQueryId(const std::optional<std::vector<NBSearchResult>>& results) {
  return results && !results->empty() ? results->front().queryId : 0;
}

uint64_t NBResultSection::firstResultQueryId() const { return orvex::firstResultQueryId(results); }

}  // namespace orvex
