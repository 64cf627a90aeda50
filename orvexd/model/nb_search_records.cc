#include "orvexd/model/nb_search_records.h"

#include <algorithm>
#include <cctype>

namespace orvex {
namespace {

FeedbackValue nameIn(FeedbackTable table, uint32_t value) {
  return FeedbackValue::name(table.nameAt(value));
}

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

FeedbackDictionary NBSearchResult::dictionary() const {
  // Seven keys always, the others as the rules below add them; most results are in a visible-
  // results record, so exact room matters.
  const bool writesFbr = customProperties.has_value() || type == kTypeOrvex;
  FeedbackDictionary d(7 + (type == kTypeNSUserActivity) + writesFbr + localFeatures.has_value() +
                       correctedQuery.has_value());
  d.set("id", FeedbackValue::text(identifier));
  d.set("score", rankingScore);
  d.set("result_type", nameIn(resultTypes(), type));
  if (type == kTypeNSUserActivity) d.set("publicly_indexable", publiclyIndexable);
  d.set("top_hit", nameIn(topHitKinds(), topHit));
  d.set("section_bundle_id", FeedbackValue::text(sectionBundleIdentifier));
  const auto& bundle = resultBundleId ? resultBundleId : applicationBundleIdentifier;
  if (bundle && isLocalApplicationResult) {
    // The user's own applications are not disclosed.
    d.set("bundle_id", FeedbackValue::StaticName{kLocalApplicationBundleId});
  } else {
    d.set("bundle_id", FeedbackValue::text(bundle));
  }
  if (writesFbr)
    d.set("fbr", customProperties ? FeedbackValue::text(customProperties->fbr) : nullptr);
  if (localFeatures) d.set("local_features", *localFeatures);
  if (correctedQuery) d.set("corrected_query", *correctedQuery);
  d.set("static_correction", staticCorrection);
  return d;
}

FeedbackDictionary NBResultSection::dictionary() const {
  FeedbackDictionary d(4);
  d.set("id", FeedbackValue::text(identifier));
  d.set("score", rankingScore);
  d.set("bundle_id", FeedbackValue::text(bundleIdentifier));
  d.set("results", dictionariesOf(results));
  return d;
}

uint64_t NBResultSection::firstResultQueryId() const {
  return results && !results->empty() ? results->front().queryId : 0;
}

FeedbackDictionary NBResultRankingFeedback::dictionary() const {
  FeedbackDictionary d = result ? result->dictionary() : FeedbackDictionary(3);
  d.set("local_result_position", localResultPosition);
  if (hiddenResults) d.set("hidden_results", dictionariesOf(hiddenResults));
  if (duplicateResults) d.set("duplicate_results", dictionariesOf(duplicateResults));
  return d;
}

FeedbackDictionary NBSectionRankingFeedback::dictionary() const {
  FeedbackDictionary d = section ? section->dictionary() : FeedbackDictionary(2);
  d.set("local_section_position", localSectionPosition);
  d.set("results", dictionariesOf(results));
  return d;
}

FeedbackDictionary NBSearchSuggestion::dictionary() const {
  FeedbackDictionary d(5);
  d.set("id", FeedbackValue::text(identifier));
  d.set("suggestion", FeedbackValue::text(suggestion));
  d.set("score", score);
  d.set("suggestion_type", nameIn(suggestionTypes(), type));
  if (recordClass == Class::kORVSearchSuggestion) d.set("fbr", FeedbackValue::text(fbr));
  return d;
}

}  // namespace orvex
