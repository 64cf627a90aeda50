#include "orvexd/network/orvex_subscription_registry.h"

#include <algorithm>
#include <cmath>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/model/assembly.h"
#include "orvexd/network/orvex_subscription_info.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/notification_center.h"

namespace orvex {

namespace {

const OrvexLog& subscriptionLog() { return OrvexLogForCategory(kOrvexLogSubscription); }

// Dates are stored as Unix seconds; beyond this they were not written by the registry.
constexpr double kLatestStoredSeconds = 1e11;

double unixSeconds(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::optional<WallTime> storedTime(const PlistDictionary& stored, const char* key) {
  const auto found = stored.find(key);
  if (found == stored.end()) return std::nullopt;
  const auto seconds = found->second.asDouble();
  if (!seconds || !std::isfinite(*seconds) || std::fabs(*seconds) > kLatestStoredSeconds) {
    return std::nullopt;
  }
  return WallTime(
      std::chrono::duration_cast<WallTime::duration>(std::chrono::duration<double>(*seconds)));
}

const std::string* storedString(const PlistDictionary& stored, const char* key) {
  const auto found = stored.find(key);
  return found == stored.end() ? nullptr : found->second.asString();
}

}  // namespace

OrvexSubscriptionRegistry::OrvexSubscriptionRegistry(Assembly& assembly)
    : assembly_(assembly),
      queue_("com.zelmor.orvexd.subscriptionRegistryQueue", *assembly.workerPool, *assembly.clock) {
  (void)queue_.sync([this] { _load(); });
}

OrvexSubscriptionRegistry::~OrvexSubscriptionRegistry() = default;

void OrvexSubscriptionRegistry::_load() {
  const DefaultsStore& defaults = *assembly_.userDefaults;
  const int64_t status = defaults.integerForKey(kORVMediaStoreAccountStatusKey);
  accountStatus_ = status > 0 && status <= UINT32_MAX ? static_cast<uint32_t>(status) : 0;
  const auto stored = defaults.dictionaryForKey(kORVPublishedSubscriptionsKey);
  if (!stored) return;
  size_t dropped = 0;
  for (const auto& [provider, value] : *stored) {
    const PlistDictionary* fields = value.asDictionary();
    const std::string* type = fields ? storedString(*fields, "type") : nullptr;
    const std::string* domain = fields ? storedString(*fields, "domain") : nullptr;
    const auto published = fields ? storedTime(*fields, "published") : std::nullopt;
    const auto expires = fields ? storedTime(*fields, "expires") : std::nullopt;
    const bool domainReads = !fields || !fields->contains("domain") || domain != nullptr;
    if (type == nullptr || type->empty() || !domainReads || !published || !expires ||
        entries_.size() >= kMaxProviders) {
      ++dropped;
      continue;
    }
    entries_[provider] =
        Entry{*type, domain ? std::optional(*domain) : std::nullopt, *published, *expires};
  }
  if (dropped > 0) {
    subscriptionLog().error("dropped %lu stored subscriptions that no longer read",
                            static_cast<unsigned long>(dropped));
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(dropped),
                                                      kORVCounterSubscriptionsDropped);
  }
  if (_dropExpired() || dropped > 0) _store();
}

bool OrvexSubscriptionRegistry::_dropExpired() {
  queue_.assertCurrent("_dropExpired");
  const WallTime now = assembly_.clock->wallNow();
  return std::erase_if(entries_, [now](const auto& entry) { return entry.second.expires <= now; }) >
         0;
}

void OrvexSubscriptionRegistry::_store() {
  queue_.assertCurrent("_store");
  PlistDictionary stored;
  for (const auto& [provider, entry] : entries_) {
    PlistDictionary fields{{"type", PlistValue(entry.type)},
                           {"published", PlistValue(unixSeconds(entry.published))},
                           {"expires", PlistValue(unixSeconds(entry.expires))}};
    if (entry.domain) fields.emplace("domain", PlistValue(*entry.domain));
    stored.emplace(provider, PlistValue(std::move(fields)));
  }
  DefaultsStore& defaults = *assembly_.userDefaults;
  if (!defaults.setObject(kORVPublishedSubscriptionsKey, PlistValue(std::move(stored))) ||
      !defaults.synchronize()) {
    subscriptionLog().error("cannot store the published subscriptions");
  }
}

std::optional<SubscriptionRegistry::Refusal> OrvexSubscriptionRegistry::publish(
    const std::string& provider, const std::string& information) {
  std::string failure;
  const auto info = OrvexSubscriptionInfo::initWithString(information, *assembly_.clock, &failure);
  if (!info) return Refusal{Refusal::Reason::kInvalidInformation, failure};
  bool full = false;
  (void)queue_.sync([&] {
    _dropExpired();
    if (!entries_.contains(provider) && entries_.size() >= kMaxProviders) {
      full = true;
      return;
    }
    entries_[provider] =
        Entry{info->type(), info->domain(), assembly_.clock->wallNow(), info->expirationDate()};
    _store();
  });
  if (full) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterSubscriptionsRefused);
    std::string message = formatLog("subscription of %@ refused: %lu providers are registered",
                                    provider, static_cast<unsigned long>(kMaxProviders));
    subscriptionLog().error("%@", message);
    return Refusal{Refusal::Reason::kTooManyProviders, std::move(message)};
  }
  subscriptionLog().info("subscription of type %@ published by %@", info->type(), provider);
  assembly_.notificationCenter->post(kORVSubscriptionRegistryChangeNotification, this);
  return std::nullopt;
}

void OrvexSubscriptionRegistry::withdraw(const std::string& provider) {
  bool removed = false;
  (void)queue_.sync([&] {
    removed = entries_.erase(provider) > 0;
    if (_dropExpired() || removed) _store();
  });
  if (!removed) return;
  subscriptionLog().info("subscription withdrawn by %@", provider);
  assembly_.notificationCenter->post(kORVSubscriptionRegistryChangeNotification, this);
}

void OrvexSubscriptionRegistry::setAccountStatus(uint32_t status) {
  bool changed = false;
  (void)queue_.sync([&] {
    changed = accountStatus_ != status;
    if (!changed) return;
    accountStatus_ = status;
    DefaultsStore& defaults = *assembly_.userDefaults;
    if (!defaults.setObject(kORVMediaStoreAccountStatusKey, PlistValue(int64_t{status})) ||
        !defaults.synchronize()) {
      subscriptionLog().error("cannot store the media store account status");
    }
  });
  if (!changed) return;
  subscriptionLog().info("media store account status is now %u", status);
  assembly_.notificationCenter->post(kORVMediaStoreSubscriptionStatusChangeNotification, this);
}

uint32_t OrvexSubscriptionRegistry::accountStatus() {
  return queue_.syncResult([this] { return accountStatus_; }).value_or(0);
}

SubscriptionRegistry::ActiveSubscriptions OrvexSubscriptionRegistry::activeSubscriptions(
    const std::vector<std::string>& bundleWhitelist,
    const std::vector<std::string>& domainWhitelist, std::optional<Duration> maximumLifetime) {
  std::vector<std::string> domains;
  for (const auto& domain : domainWhitelist) domains.push_back(asciiLowercase(domain));
  const auto listed = [](const std::vector<std::string>& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
  };
  return queue_
      .syncResult([&] {
        if (_dropExpired()) _store();
        const WallTime now = assembly_.clock->wallNow();
        ActiveSubscriptions active;
        for (const auto& [provider, entry] : entries_) {
          WallTime expires = entry.expires;
          if (maximumLifetime && entry.published + *maximumLifetime < expires) {
            expires =
                entry.published + std::chrono::duration_cast<WallTime::duration>(*maximumLifetime);
          }
          if (expires <= now) continue;
          if (!listed(bundleWhitelist, provider) &&
              !(entry.domain && listed(domains, asciiLowercase(*entry.domain)))) {
            continue;
          }
          nlohmann::json dictionary{{"provider", provider}, {"type", entry.type}, {"active", true}};
          if (entry.domain) dictionary["domain"] = *entry.domain;
          active.entries.push_back(std::move(dictionary));
          if (!active.nextExpiry || expires < *active.nextExpiry) active.nextExpiry = expires;
        }
        return active;
      })
      .value_or(ActiveSubscriptions());
}

}  // namespace orvex
