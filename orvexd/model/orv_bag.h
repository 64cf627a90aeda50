// The parsed bag: the server's configuration document, as seen by one client user agent.
//
// Made from the bag's JSON object and a user agent; read-only once made (a new bag replaces the
// old one as a whole, so a bag is shared as std::shared_ptr<const ORVBag>). Keys may be
// overridden per client by "agents": an object whose keys are lower-case fragments of a user
// agent and whose values hold overriding keys (a key overridden with null keeps its value);
// every fragment that the lower-cased user agent contains applies, in the order of the "agents"
// object, later ones winning. So the same raw document answers differently for different agents.
//
// The parsed document is immutable and shared: every view made from a bag with initWithBag()
// (one per client, one per feedback check) points at the same document and keeps only its
// agent's overriding keys, so a client costs a few keys rather than a copy of a bag that may be
// tens of megabytes.
//
// Accessors never fail: a missing key or a value of the wrong type reads as absent (or the
// documented default).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

// JSON objects that keep their key order, which the per-agent overrides depend on.
using BagDictionary = nlohmann::ordered_json;

class ORVBag {
 public:
  // Durations read from the document are capped here (about 31 years), so that a consumer can
  // turn them into a Duration in nanoseconds whatever the document says.
  static constexpr double kLongestSeconds = 1e9;

  // None when `dictionary` is not a JSON object.
  static std::shared_ptr<const ORVBag> initWithDictionary(BagDictionary dictionary,
                                                          std::string userAgent);
  // The same document as `bag`, shared rather than copied, seen by `userAgent`.
  static std::shared_ptr<const ORVBag> initWithBag(const ORVBag& bag, std::string userAgent);

  // The dictionary the bag was made from, unchanged; the same object for every view of it.
  const BagDictionary& rawBag() const { return *rawBag_; }
  const std::string& userAgent() const { return userAgent_; }

  // "version": a string, or a number read as its decimal text; empty when absent.
  std::string version() const;
  bool isEnabled() const;  // "enabled", default false

  std::optional<std::string> searchURL() const;         // "search_url"
  std::optional<std::string> moreResultsURL() const;    // "more_results_url"
  std::optional<std::string> cardURL() const;           // "card_url"
  std::optional<std::string> warmURL() const;           // "warm_url"
  std::optional<std::string> feedbackURL() const;       // "feedback_url"
  std::optional<std::string> crowdsourcingURL() const;  // "crowdsourcing_url"

  bool feedbackEnabled() const;                    // "feedback_enabled", default false
  std::vector<std::string> feedbackTypes() const;  // "feedback_types"
  // Durations: seconds > 0, at most kLongestSeconds.
  std::optional<double> timeoutIntervalForRequest() const;  // "request_timeout", seconds
  std::optional<double> searchRenderTimeout() const;        // "search_render_timeout", seconds
  int64_t minimumQueryLength() const;                       // "min_query_length", default 0

  std::set<std::string> supportedGeoLocationSources() const;  // "geo_sources"
  bool sendGeoEnvironmentHeader() const;                      // "send_geo_environment_header"

  std::optional<double> subscriptionTTL() const;  // "subscription_ttl", seconds
  std::vector<std::string> subscriptionProviderDomainWhitelist() const;
  std::vector<std::string> subscriptionProviderBundleIdentifierWhitelist() const;

  bool lookupEnabled() const;  // "lookup_enabled", default false

  // "resources": image identifier → URL.
  std::map<std::string, std::string> resources() const;
  std::optional<std::string> urlForIdentifier(std::string_view identifier) const;

  // Any top-level string (a resource file's URL, say), after the agent's overrides.
  std::optional<std::string> stringForKey(std::string_view key) const;
  // The value under `key` after the agent's overrides; null when absent.
  const BagDictionary& valueForKey(std::string_view key) const;

  // Use initWithDictionary() or initWithBag(); public for make_shared. `raw` is an object.
  ORVBag(std::shared_ptr<const BagDictionary> raw, std::string userAgent);

 private:
  std::vector<std::string> stringArrayForKey(std::string_view key) const;
  std::optional<double> positiveSecondsForKey(std::string_view key) const;
  bool boolForKey(std::string_view key, bool fallback) const;

  std::shared_ptr<const BagDictionary> rawBag_;  // never null, shared by every view
  std::string userAgent_;
  BagDictionary overrides_;  // the agent's keys from "agents", read before rawBag_'s
};

}  // namespace orvex
