// The privacy filtering of one session before it is uploaded.
//
// Every record of the session is processed once, in session order, with one filter (see
// NBFeedback::process). The filter does two things:
// - Results and suggestions that come from the device itself rather than from the back-end
//   (local files, messages, installed applications, the user's own history) carry identifiers
//   that can name the user's data. Each such identifier is replaced by a pseudonym, "local-N",
//   numbered in order of first appearance, so the same item reads the same everywhere in the
//   session while its real identifier never leaves the device. Back-end and outside-engine
//   identifiers mean nothing private and are kept.
// - It remembers every result and suggestion shown and every one reported as engaged; what was
//   shown but never engaged is given back by missingResults() / missingSuggestions(), once
//   each, in order of first appearance, with identifiers already replaced.
//
// Not thread-safe: one filter serves one pass over one session.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/model/session_processing_helper.h"

namespace orvex {

class SessionPrivacyFilter final : public SessionProcessingHelper {
 public:
  static constexpr std::string_view kPseudonymPrefix = "local-";

  std::optional<std::string> replacementForIdentifier(std::string_view identifier) override;
  void identifierReferenced(std::string_view identifier, const NBSearchResult& result) override;
  void identifierReferenced(std::string_view identifier,
                            const NBSearchSuggestion& suggestion) override;
  void identifierExpanded(std::string_view identifier) override;
  std::vector<NBSearchResult> missingResults() override;
  std::vector<NBSearchSuggestion> missingSuggestions() override;

  // Whether an item's identifier stays on the device.
  static bool isPrivate(const NBSearchResult& result);
  static bool isPrivate(const NBSearchSuggestion& suggestion);

 private:
  void markPrivate(std::string_view identifier);
  template <typename T>
  std::vector<T> missing(const std::vector<std::pair<std::string, T>>& shown);

  std::map<std::string, std::string, std::less<>> pseudonyms_;
  std::set<std::string, std::less<>> expanded_;
  // First appearance of each item, in order.
  std::vector<std::pair<std::string, NBSearchResult>> results_;
  std::vector<std::pair<std::string, NBSearchSuggestion>> suggestions_;
  std::set<std::string, std::less<>> seenResults_;
  std::set<std::string, std::less<>> seenSuggestions_;
};

}  // namespace orvex
