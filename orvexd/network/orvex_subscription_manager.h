// Gathers the user's active content subscriptions for the back-end: the first-party premium
// entry while the media store reports a subscribed account, and the entries outside providers
// published in the subscription registry that the bag's whitelists admit. The list goes to the
// delegate (the request factory's device context), which sends it as the
// "X-Zelmor-Subscriptions" header; the manager also passes on the device's store front.
//
// The list is rebuilt (`_updateSubscriptions`) whenever the bag, the account status or the
// registry changes, and again when the first listed entry expires, so that an expired entry stops
// being sent without any other change.
//
// Threading: the map, the bag and the expiry timer belong to `_queue`
// ("com.zelmor.orvex.subscriptionsByProvider-Queue"); the delegate is only called from it.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/interfaces/subscription_manager.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/network/subscription_manager.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/one_shot_timer.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexSubscriptionManager final
    : public SubscriptionManager,
      public std::enable_shared_from_this<OrvexSubscriptionManager> {
 public:
  // The provider name of the first-party entry.
  static constexpr char kFirstPartyProvider[] = "wicker";

  // Observes the bag, the account status and the registry, passes the store front on once,
  // and builds the first list.
  static std::shared_ptr<OrvexSubscriptionManager> initWithAssembly(
      Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate);
  ~OrvexSubscriptionManager() override;

  std::vector<nlohmann::json> subscriptions() override;

 private:
  OrvexSubscriptionManager(Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate);
  void _observe();

  void _bagChangeNotification(const Notification& notification);
  void _subscriptionChanged();
  void _thirdPartyNotificationDidUpdate();
  // Reads the store front again, on the queue.
  void _storefrontChanged();
  void _initializeStorefront();
  void _updateStorefrontIdentifier(const std::string& storefront);
  // Runs `_updateSubscriptions` on the queue.
  void _scheduleUpdate();
  void _updateSubscriptions();
  void _updateDelegate();

  Assembly& _assembly;
  const std::weak_ptr<SubscriptionManagerDelegate> _delegate;
  SerialQueue _queue;
  std::map<std::string, nlohmann::json> _subscriptionsByProvider;  // _queue
  std::shared_ptr<const ORVBag> _bag;                              // _queue; the latest bag
  OneShotTimer _expiryTimer{_queue};                               // _queue
  std::vector<ObserverToken> _observers;                           // set up once, by _observe
};

}  // namespace orvex
