// What other components need of the subscription manager: the subscriptions the next request
// carries. OrvexSubscriptionManager is the implementation.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

namespace orvex {

class SubscriptionManager {
 public:
  virtual ~SubscriptionManager() = default;

  // The active subscriptions, one small JSON object each, as the request factory last heard of
  // them. Waits for updates already asked for; not from the manager's queue.
  virtual std::vector<nlohmann::json> subscriptions() = 0;
};

}  // namespace orvex
