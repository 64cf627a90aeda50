// One content subscription as its provider describes it: a subscription type and a lifetime,
// given either as a JSON object or as a list of key-value pairs ("type=premium, expires=3600").
//
// The description comes from another application, so every reading is bounded: the text's
// length, the number of pairs, the JSON nesting and the length of each value. A description that
// does not read is logged, and the logged text is handed to the caller, who may pass it on.
// Immutable once made; safe to share between threads.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/time_types.h"

namespace orvex {

class Clock;

class OrvexSubscriptionInfo {
 public:
  // Longest description read, in bytes.
  static constexpr size_t kMaxInformationBytes = 4096;
  // Most pairs a key-value list may hold.
  static constexpr size_t kMaxPairs = 32;
  // Deepest JSON nesting read; a description is one flat object.
  static constexpr size_t kMaxJsonDepth = 8;
  // Longest "type" and "domain", in bytes.
  static constexpr size_t kMaxValueBytes = 256;

  // A description as JSON or as a key-value list. None when it is empty, too long or does not
  // read; `failure` then holds the logged reason.
  static std::optional<OrvexSubscriptionInfo> initWithString(std::string_view information,
                                                             const Clock& clock,
                                                             std::string* failure = nullptr);
  // From a dictionary: "expires" (seconds from now, a number or a numeric string) and "type" (a
  // non-empty string) are required, "domain" (the provider's domain, a string) is optional.
  static std::optional<OrvexSubscriptionInfo> initWithDictionary(const nlohmann::json& dictionary,
                                                                 const Clock& clock,
                                                                 std::string* failure = nullptr);
  // "key=value" pieces separated by ",", each side trimmed, into an object of strings. None for
  // an empty text, a piece without "=", an empty key or value, or a key given twice.
  static std::optional<nlohmann::json> dictionaryWithKeyValuePairListString(
      std::string_view text, std::string* failure = nullptr);

  const std::string& type() const { return type_; }
  WallTime expirationDate() const { return expirationDate_; }
  const std::optional<std::string>& domain() const { return domain_; }
  // Whether the expiration date is now or past.
  bool isExpired(const Clock& clock) const;

 private:
  OrvexSubscriptionInfo(std::string type, WallTime expirationDate,
                        std::optional<std::string> domain)
      : type_(std::move(type)), expirationDate_(expirationDate), domain_(std::move(domain)) {}

  std::string type_;
  WallTime expirationDate_;
  std::optional<std::string> domain_;
};

}  // namespace orvex
