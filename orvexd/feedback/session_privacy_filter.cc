#include "orvexd/feedback/session_privacy_filter.h"

#include <utility>

namespace orvex {

bool SessionPrivacyFilter::isPrivate(const NBSearchResult& result) {
  if (result.isLocalApplicationResult) return true;
  if (result.type == NBSearchResult::kTypeOrvex || result.isOutsideEngineResult()) return false;
  return !result.publiclyIndexable;
}

bool SessionPrivacyFilter::isPrivate(const NBSearchSuggestion& suggestion) {
  return suggestion.recordClass != NBSearchSuggestion::Class::kORVSearchSuggestion;
}

void SessionPrivacyFilter::markPrivate(std::string_view identifier) {
  if (pseudonyms_.find(identifier) != pseudonyms_.end()) return;
  std::string pseudonym = std::string(kPseudonymPrefix) + std::to_string(pseudonyms_.size() + 1);
  pseudonyms_.emplace(std::string(identifier), std::move(pseudonym));
}

std::optional<std::string> SessionPrivacyFilter::replacementForIdentifier(
    std::string_view identifier) {
  const auto found = pseudonyms_.find(identifier);
  if (found == pseudonyms_.end()) return std::nullopt;
  return found->second;
}

void SessionPrivacyFilter::identifierReferenced(std::string_view identifier,
                                                const NBSearchResult& result) {
  if (isPrivate(result)) markPrivate(identifier);
  if (seenResults_.insert(std::string(identifier)).second) {
    results_.emplace_back(std::string(identifier), result);
  }
}

void SessionPrivacyFilter::identifierReferenced(std::string_view identifier,
                                                const NBSearchSuggestion& suggestion) {
  if (isPrivate(suggestion)) markPrivate(identifier);
  if (seenSuggestions_.insert(std::string(identifier)).second) {
    suggestions_.emplace_back(std::string(identifier), suggestion);
  }
}

void SessionPrivacyFilter::identifierExpanded(std::string_view identifier) {
  expanded_.insert(std::string(identifier));
}

template <typename T>
std::vector<T> SessionPrivacyFilter::missing(const std::vector<std::pair<std::string, T>>& shown) {
  std::vector<T> items;
  for (const auto& [identifier, item] : shown) {
    if (expanded_.count(identifier) != 0) continue;
    T copy = item;
    if (auto replacement = replacementForIdentifier(identifier)) copy.identifier = *replacement;
    items.push_back(std::move(copy));
  }
  return items;
}

std::vector<NBSearchResult> SessionPrivacyFilter::missingResults() { return missing(results_); }

std::vector<NBSearchSuggestion> SessionPrivacyFilter::missingSuggestions() {
  return missing(suggestions_);
}

}  // namespace orvex
