// The device's registry of content subscriptions: what providers (applications, by their
// application id) have published of the user's subscriptions with them, and the first-party
// media store's account status. OrvexSubscriptionRegistry is the implementation; the daemon's
// Subscriptions bus object feeds it, and the subscription manager reads it.
//
// Changes are announced in-process: "ORVSubscriptionRegistryChange" when the published entries
// change, "ORVMediaStoreSubscriptionStatusChange" when the account status does. All operations
// are callable from any thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/base/time_types.h"

namespace orvex {

// The media store's account status of a subscribed user.
inline constexpr uint32_t kMediaStoreAccountStatusSubscribed = 3;

class SubscriptionRegistry {
 public:
  virtual ~SubscriptionRegistry() = default;

  // Why a publication was refused: its text does not read, or the registry holds as many
  // providers as it keeps.
  struct Refusal {
    enum class Reason { kInvalidInformation, kTooManyProviders };
    Reason reason;
    std::string message;
  };
  // The active entries that pass a whitelist, {"provider", "type", "active": true, "domain" when
  // given}, and the time the first of them stops being active.
  struct ActiveSubscriptions {
    std::vector<nlohmann::json> entries;
    std::optional<WallTime> nextExpiry;
  };

  // Publishes `provider`'s subscription information (JSON or a key-value list), replacing what
  // it published before.
  virtual std::optional<Refusal> publish(const std::string& provider,
                                         const std::string& information) = 0;
  // Forgets what `provider` published; nothing when it published nothing.
  virtual void withdraw(const std::string& provider) = 0;
  virtual void setAccountStatus(uint32_t status) = 0;
  virtual uint32_t accountStatus() = 0;
  // The entries not yet expired whose provider is on `bundleWhitelist` or whose domain is on
  // `domainWhitelist`, each counted as expired once `maximumLifetime` has passed since it was
  // published (when given).
  virtual ActiveSubscriptions activeSubscriptions(const std::vector<std::string>& bundleWhitelist,
                                                  const std::vector<std::string>& domainWhitelist,
                                                  std::optional<Duration> maximumLifetime) = 0;
};

}  // namespace orvex
