#include "orvexd/network/orvex_subscription_info.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"
#include "orvexd/platform/clock.h"

namespace orvex {

namespace {

const OrvexLog& subscriptionLog() { return OrvexLogForCategory(kOrvexLogSubscription); }

// Lifetimes are kept within a century either way, so that adding one to a date never overflows.
constexpr double kLongestLifetimeSeconds = 100.0 * 365 * 24 * 3600;

// Logs the reason a description was refused and hands it to the caller.
template <typename... Args>
void refuse(std::string* failure, LogLevel level, std::string_view format, const Args&... args) {
  std::string text = formatLog(format, args...);
  subscriptionLog().write(level, text);
  if (failure != nullptr) *failure = std::move(text);
}

// The number a lifetime string starts with, as a number reader that stops at the first character
// it cannot use: surrounding space is skipped, and text without a leading number counts as 0.
double leadingNumber(std::string_view text) {
  text = trimWhitespace(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() ? value : 0;
}

// A value as it is logged; never throws, whatever bytes its strings hold.
std::string describeJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::optional<OrvexSubscriptionInfo> OrvexSubscriptionInfo::initWithString(
    std::string_view information, const Clock& clock, std::string* failure) {
  if (information.empty()) {
    refuse(failure, LogLevel::kDebug, "Subscription information is empty");
    return std::nullopt;
  }
  if (information.size() > kMaxInformationBytes) {
    refuse(failure, LogLevel::kError, "Subscription information of %lu bytes is longer than %lu",
           static_cast<unsigned long>(information.size()),
           static_cast<unsigned long>(kMaxInformationBytes));
    return std::nullopt;
  }
  if (!isValidUtf8(information)) {
    refuse(failure, LogLevel::kError, "Subscription information is not UTF-8 text");
    return std::nullopt;
  }
  const nlohmann::json parsed =
      parseJsonWithinLimits(information, JsonLimits{kMaxInformationBytes, kMaxJsonDepth});
  if (parsed.is_object()) return initWithDictionary(parsed, clock, failure);
  auto dictionary = dictionaryWithKeyValuePairListString(information, failure);
  if (!dictionary) return std::nullopt;
  return initWithDictionary(*dictionary, clock, failure);
}

std::optional<nlohmann::json> OrvexSubscriptionInfo::dictionaryWithKeyValuePairListString(
    std::string_view text, std::string* failure) {
  if (text.empty()) {
    refuse(failure, LogLevel::kDebug, "Subscription information is empty");
    return std::nullopt;
  }
  const std::string full(text);
  nlohmann::json dictionary = nlohmann::json::object();
  size_t start = 0;
  size_t pieces = 0;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view piece = text.substr(start, end - start);
    start = end + 1;
    if (++pieces > kMaxPairs) {
      refuse(failure, LogLevel::kError,
             "Subscription information contained more than %lu key-value pairs (full string: %@)",
             static_cast<unsigned long>(kMaxPairs), full);
      return std::nullopt;
    }
    const size_t equals = piece.find('=');
    if (equals == std::string_view::npos) {
      refuse(failure, LogLevel::kError,
             "Subscription information contained invalid key-value pair %@ (full string: %@)",
             std::string(piece), full);
      return std::nullopt;
    }
    const std::string key(trimWhitespace(piece.substr(0, equals)));
    const std::string value(trimWhitespace(piece.substr(equals + 1)));
    if (key.empty() || value.empty()) {
      refuse(failure, LogLevel::kError,
             "Subscription information contained empty key or value (full string: %@)", full);
      return std::nullopt;
    }
    if (dictionary.contains(key)) {
      refuse(failure, LogLevel::kDebug,
             "Subscription information contained duplicate key %@ (full string: %@)", key, full);
      return std::nullopt;
    }
    dictionary[key] = value;
  }
  return dictionary;
}

std::optional<OrvexSubscriptionInfo> OrvexSubscriptionInfo::initWithDictionary(
    const nlohmann::json& dictionary, const Clock& clock, std::string* failure) {
  if (!dictionary.is_object()) {
    refuse(failure, LogLevel::kError, "Subscription information is no dictionary: %@",
           describeJson(dictionary));
    return std::nullopt;
  }
  const auto valueFor = [&dictionary](const char* key) {
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? nlohmann::json() : *found;
  };
  const auto invalid = [&](std::string_view format, const nlohmann::json& value) {
    refuse(failure, LogLevel::kError, format, describeJson(value), describeJson(dictionary));
    return std::nullopt;
  };
  const auto boundedText = [](const nlohmann::json& value) {
    return value.is_string() && !value.get_ref<const std::string&>().empty() &&
           value.get_ref<const std::string&>().size() <= kMaxValueBytes;
  };
  const nlohmann::json expires = valueFor("expires");
  if (!expires.is_number() && !expires.is_string()) {
    return invalid("Subscription information contained invalid 'expires': %@ (full dictionary: %@)",
                   expires);
  }
  const nlohmann::json type = valueFor("type");
  if (!boundedText(type)) {
    return invalid("Subscription information contained invalid 'type': %@ (full dictionary: %@)",
                   type);
  }
  std::optional<std::string> domain;
  if (const nlohmann::json given = valueFor("domain"); !given.is_null()) {
    if (!boundedText(given)) {
      return invalid(
          "Subscription information contained invalid 'domain': %@ (full dictionary: %@)", given);
    }
    domain = given.get<std::string>();
  }
  // A lifetime from now, not a date.
  double seconds = expires.is_number() ? expires.get<double>()
                                       : leadingNumber(expires.get_ref<const std::string&>());
  if (std::isnan(seconds)) seconds = 0;
  seconds = std::clamp(seconds, -kLongestLifetimeSeconds, kLongestLifetimeSeconds);
  const auto lifetime =
      std::chrono::duration_cast<WallTime::duration>(std::chrono::duration<double>(seconds));
  return OrvexSubscriptionInfo(type.get<std::string>(), clock.wallNow() + lifetime,
                               std::move(domain));
}

bool OrvexSubscriptionInfo::isExpired(const Clock& clock) const {
  return expirationDate_ <= clock.wallNow();
}

}  // namespace orvex
