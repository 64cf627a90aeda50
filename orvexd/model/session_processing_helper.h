// What a session's privacy filtering offers the records it processes, and the walk that hands
// every result and suggestion of a record to it.
//
// Before a session is uploaded, each record is processed once, in session order, with one
// helper for the whole session (NBFeedback::process). The record reports every search result
// and suggestion it holds as referenced and what it reports as engaged as expanded, and takes
// the helper's replacement for each identifier, so that an identifier the session already sent
// in another form is written the same way again. What the helper remembers, which identifiers
// it replaces and which results it finally counts as missing is the session's business.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/nb_search_records.h"

namespace orvex {

class SessionProcessingHelper {
 public:
  virtual ~SessionProcessingHelper() = default;

  // The identifier to write instead of `identifier`, or nothing to keep it.
  virtual std::optional<std::string> replacementForIdentifier(std::string_view identifier) = 0;
  // A record holds `result` (or `suggestion`), whose identifier is `identifier`.
  virtual void identifierReferenced(std::string_view identifier, const NBSearchResult& result) = 0;
  virtual void identifierReferenced(std::string_view identifier,
                                    const NBSearchSuggestion& suggestion) = 0;
  // A record reports the result or suggestion `identifier` as engaged.
  virtual void identifierExpanded(std::string_view identifier) = 0;
  // What was shown during the session but never reported; the session adds records of them.
  virtual std::vector<NBSearchResult> missingResults() = 0;
  virtual std::vector<NBSearchSuggestion> missingSuggestions() = 0;
};

// Walks a record's fields (as its visit() lists them) and hands each result and suggestion,
// nested ones first, to the helper, rewriting their identifiers.
class IdentifierRewriter : public feedback_codec::PassesOverUploadEntries {
 public:
  explicit IdentifierRewriter(SessionProcessingHelper& helper) : helper_(helper) {}

  bool changed() const { return changed_; }

  template <typename T>
  void operator()(std::string_view, T& value, const auto&... /*upload*/) {
    if constexpr (feedback_codec::Optional<T>) {
      if (value) (*this)({}, *value);
    } else if constexpr (feedback_codec::Vector<T>) {
      for (auto& element : value) (*this)({}, element);
    } else if constexpr (feedback_codec::NestedRecord<T>) {
      T::visit(*this, value);
      if constexpr (std::is_same_v<T, NBSearchResult> || std::is_same_v<T, NBSearchSuggestion>) {
        if (value.identifier) {
          helper_.identifierReferenced(*value.identifier, value);
          rewrite(value.identifier);
        }
      }
    }
  }
  void enumeration(std::string_view, uint32_t&, FeedbackTable, const auto&...) {}

  void rewrite(std::optional<std::string>& identifier) {
    if (!identifier) return;
    auto replacement = helper_.replacementForIdentifier(*identifier);
    if (replacement && *replacement != *identifier) {
      identifier = std::move(replacement);
      changed_ = true;
    }
  }

 private:
  SessionProcessingHelper& helper_;
  bool changed_ = false;
};

}  // namespace orvex
