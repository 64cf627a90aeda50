// The subscription registry the daemon serves (see model/interfaces/subscription_registry.h):
// each provider's last published subscription, kept in the defaults store under
// "ORVPublishedSubscriptions" so that it outlives restarts, and the media store's account status
// under "ORVMediaStoreAccountStatus".
//
// A provider publishes one entry at a time; a new one replaces the old. Entries whose own
// lifetime has ended are dropped whenever the registry is read or written. At most
// kMaxProviders providers are kept: a new provider beyond them is refused (and counted) until
// one withdraws or expires.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "orvexd/model/interfaces/subscription_registry.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexSubscriptionRegistry final : public SubscriptionRegistry {
 public:
  static constexpr size_t kMaxProviders = 64;

  // Reads what the defaults store holds; stored entries that no longer read are dropped and
  // counted.
  explicit OrvexSubscriptionRegistry(Assembly& assembly);
  ~OrvexSubscriptionRegistry() override;

  std::optional<Refusal> publish(const std::string& provider,
                                 const std::string& information) override;
  void withdraw(const std::string& provider) override;
  void setAccountStatus(uint32_t status) override;
  uint32_t accountStatus() override;
  ActiveSubscriptions activeSubscriptions(const std::vector<std::string>& bundleWhitelist,
                                          const std::vector<std::string>& domainWhitelist,
                                          std::optional<Duration> maximumLifetime) override;

 private:
  struct Entry {
    std::string type;
    std::optional<std::string> domain;
    WallTime published;
    WallTime expires;
  };

  void _load();
  // Drops the entries whose lifetime has ended; whether there were any.
  bool _dropExpired();
  void _store();

  Assembly& assembly_;
  SerialQueue queue_;                     // "com.zelmor.orvexd.subscriptionRegistryQueue"
  std::map<std::string, Entry> entries_;  // owned by queue_; by provider
  uint32_t accountStatus_ = 0;            // owned by queue_
};

}  // namespace orvex
