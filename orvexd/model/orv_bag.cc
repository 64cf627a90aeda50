#include "orvexd/model/orv_bag.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

#include "orvexd/base/text_util.h"

namespace orvex {

namespace {

const BagDictionary& nullValue() {
  static const BagDictionary kNull;
  return kNull;
}

}  // namespace

std::shared_ptr<const ORVBag> ORVBag::initWithDictionary(BagDictionary dictionary,
                                                         std::string userAgent) {
  if (!dictionary.is_object()) return nullptr;
  return std::make_shared<const ORVBag>(
      std::make_shared<const BagDictionary>(std::move(dictionary)), std::move(userAgent));
}

std::shared_ptr<const ORVBag> ORVBag::initWithBag(const ORVBag& bag, std::string userAgent) {
  return std::make_shared<const ORVBag>(bag.rawBag_, std::move(userAgent));
}

ORVBag::ORVBag(std::shared_ptr<const BagDictionary> raw, std::string userAgent)
    : rawBag_(std::move(raw)),
      userAgent_(std::move(userAgent)),
      overrides_(BagDictionary::object()) {
  const auto agents = rawBag_->find("agents");
  if (agents == rawBag_->end() || !agents->is_object()) return;
  const std::string agent = asciiLowercase(userAgent_);
  for (const auto& [fragment, overrides] : agents->items()) {
    if (fragment.empty() || !overrides.is_object()) continue;
    if (agent.find(asciiLowercase(fragment)) == std::string::npos) continue;
    // A null override is no override: the bag's disk copy (a property list) cannot hold null
    // and leaves it out, and the bag read back from it must answer as the fetched one did.
    for (const auto& [key, value] : overrides.items()) {
      if (!value.is_null()) overrides_[key] = value;
    }
  }
}

const BagDictionary& ORVBag::valueForKey(std::string_view key) const {
  if (const auto it = overrides_.find(key); it != overrides_.end()) return *it;
  const auto it = rawBag_->find(key);
  return it == rawBag_->end() ? nullValue() : *it;
}

std::optional<std::string> ORVBag::stringForKey(std::string_view key) const {
  const BagDictionary& value = valueForKey(key);
  if (!value.is_string()) return std::nullopt;
  std::string text = value.get<std::string>();
  if (text.empty()) return std::nullopt;
  return text;
}

bool ORVBag::boolForKey(std::string_view key, bool fallback) const {
  const BagDictionary& value = valueForKey(key);
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  return fallback;
}

std::vector<std::string> ORVBag::stringArrayForKey(std::string_view key) const {
  std::vector<std::string> strings;
  const BagDictionary& value = valueForKey(key);
  if (!value.is_array()) return strings;
  for (const BagDictionary& element : value) {
    if (element.is_string()) strings.push_back(element.get<std::string>());
  }
  return strings;
}

std::optional<double> ORVBag::positiveSecondsForKey(std::string_view key) const {
  const BagDictionary& value = valueForKey(key);
  if (!value.is_number()) return std::nullopt;
  const double seconds = value.get<double>();
  if (!std::isfinite(seconds) || seconds <= 0) return std::nullopt;
  return std::min(seconds, kLongestSeconds);
}

std::string ORVBag::version() const {
  const BagDictionary& value = valueForKey("version");
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number_unsigned()) return std::to_string(value.get<uint64_t>());
  if (value.is_number_integer()) return std::to_string(value.get<int64_t>());
  if (value.is_number_float()) return value.dump();
  return {};
}

bool ORVBag::isEnabled() const { return boolForKey("enabled", false); }

std::optional<std::string> ORVBag::searchURL() const { return stringForKey("search_url"); }
std::optional<std::string> ORVBag::moreResultsURL() const {
  return stringForKey("more_results_url");
}
std::optional<std::string> ORVBag::cardURL() const { return stringForKey("card_url"); }
std::optional<std::string> ORVBag::warmURL() const { return stringForKey("warm_url"); }
std::optional<std::string> ORVBag::feedbackURL() const { return stringForKey("feedback_url"); }
std::optional<std::string> ORVBag::crowdsourcingURL() const {
  return stringForKey("crowdsourcing_url");
}

bool ORVBag::feedbackEnabled() const { return boolForKey("feedback_enabled", false); }
std::vector<std::string> ORVBag::feedbackTypes() const {
  return stringArrayForKey("feedback_types");
}

std::optional<double> ORVBag::timeoutIntervalForRequest() const {
  return positiveSecondsForKey("request_timeout");
}
std::optional<double> ORVBag::searchRenderTimeout() const {
  return positiveSecondsForKey("search_render_timeout");
}

int64_t ORVBag::minimumQueryLength() const {
  const BagDictionary& value = valueForKey("min_query_length");
  // Clamped to 0 ... INT64_MAX: the document may hold any number.
  constexpr int64_t kLongest = std::numeric_limits<int64_t>::max();
  if (value.is_number_unsigned()) {
    return static_cast<int64_t>(std::min<uint64_t>(value.get<uint64_t>(), kLongest));
  }
  if (value.is_number_integer()) return std::max<int64_t>(0, value.get<int64_t>());
  if (value.is_number_float() && std::isfinite(value.get<double>())) {
    const double length = value.get<double>();
    if (length <= 0) return 0;
    return length >= 0x1p63 ? kLongest : static_cast<int64_t>(length);
  }
  return 0;
}

std::set<std::string> ORVBag::supportedGeoLocationSources() const {
  const std::vector<std::string> sources = stringArrayForKey("geo_sources");
  return {sources.begin(), sources.end()};
}

bool ORVBag::sendGeoEnvironmentHeader() const {
  return boolForKey("send_geo_environment_header", false);
}

std::optional<double> ORVBag::subscriptionTTL() const {
  return positiveSecondsForKey("subscription_ttl");
}
std::vector<std::string> ORVBag::subscriptionProviderDomainWhitelist() const {
  return stringArrayForKey("subscription_domain_whitelist");
}
std::vector<std::string> ORVBag::subscriptionProviderBundleIdentifierWhitelist() const {
  return stringArrayForKey("subscription_bundle_whitelist");
}

bool ORVBag::lookupEnabled() const { return boolForKey("lookup_enabled", false); }

std::map<std::string, std::string> ORVBag::resources() const {
  std::map<std::string, std::string> resources;
  const BagDictionary& value = valueForKey("resources");
  if (!value.is_object()) return resources;
  for (const auto& [identifier, url] : value.items()) {
    if (url.is_string()) resources.emplace(identifier, url.get<std::string>());
  }
  return resources;
}

std::optional<std::string> ORVBag::urlForIdentifier(std::string_view identifier) const {
  const BagDictionary& value = valueForKey("resources");
  if (!value.is_object()) return std::nullopt;
  const auto it = value.find(identifier);
  if (it == value.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

}  // namespace orvex
