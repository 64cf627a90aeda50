// The user's content subscriptions and the device's store front, as the back-end is told of
// them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvex {

// Told of every change; calls come from the subscription manager's queue.
class SubscriptionManagerDelegate {
 public:
  virtual ~SubscriptionManagerDelegate() = default;
  // One small JSON object per active subscription.
  virtual void subscriptionManagerDidUpdateSubscriptionDictionaries(
      const std::vector<nlohmann::json>& subscriptions) = 0;
  virtual void subscriptionManagerDidUpdateStorefrontIdentifier(const std::string& storefront) = 0;
};

}  // namespace orvex
