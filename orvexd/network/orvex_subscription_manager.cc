#include "orvexd/network/orvex_subscription_manager.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/subscription_registry.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"

namespace orvex {

namespace {

const OrvexLog& subscriptionLog() { return OrvexLogForCategory(kOrvexLogSubscription); }

}  // namespace

std::shared_ptr<OrvexSubscriptionManager> OrvexSubscriptionManager::initWithAssembly(
    Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate) {
  std::shared_ptr<OrvexSubscriptionManager> manager(
      new OrvexSubscriptionManager(assembly, std::move(delegate)));
  manager->_observe();
  manager->_storefrontChanged();
  manager->_scheduleUpdate();
  return manager;
}

OrvexSubscriptionManager::OrvexSubscriptionManager(
    Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate)
    : _assembly(assembly),
      _delegate(std::move(delegate)),
      _queue("com.zelmor.orvex.subscriptionsByProvider-Queue", *assembly.workerPool,
             *assembly.clock) {}

OrvexSubscriptionManager::~OrvexSubscriptionManager() { _observers.clear(); }

void OrvexSubscriptionManager::_observe() {
  std::weak_ptr<OrvexSubscriptionManager> weak = weak_from_this();
  NotificationCenter& center = *_assembly.notificationCenter;
  _observers.push_back(center.addObserver(kORVBagChangeNotification, nullptr,
                                          [weak](const Notification& notification) {
                                            if (auto self = weak.lock())
                                              self->_bagChangeNotification(notification);
                                          }));
  _observers.push_back(center.addObserver(kORVMediaStoreSubscriptionStatusChangeNotification,
                                          nullptr, [weak](const Notification&) {
                                            if (auto self = weak.lock()) {
                                              self->_subscriptionChanged();
                                              self->_storefrontChanged();
                                            }
                                          }));
  _observers.push_back(center.addObserver(kORVSubscriptionRegistryChangeNotification, nullptr,
                                          [weak](const Notification&) {
                                            if (auto self = weak.lock())
                                              self->_thirdPartyNotificationDidUpdate();
                                          }));
}

std::vector<nlohmann::json> OrvexSubscriptionManager::subscriptions() {
  return _queue
      .syncResult([this] {
        std::vector<nlohmann::json> values;
        for (const auto& entry : _subscriptionsByProvider) values.push_back(entry.second);
        return values;
      })
      .value_or(std::vector<nlohmann::json>());
}

void OrvexSubscriptionManager::_bagChangeNotification(const Notification& notification) {
  const auto* bag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
  if (bag == nullptr || !*bag) return;
  _queue.async([weak = weak_from_this(), bag = *bag] {
    auto self = weak.lock();
    if (!self) return;
    self->_bag = bag;
    self->_updateSubscriptions();
  });
}

void OrvexSubscriptionManager::_subscriptionChanged() { _scheduleUpdate(); }

void OrvexSubscriptionManager::_thirdPartyNotificationDidUpdate() { _scheduleUpdate(); }

void OrvexSubscriptionManager::_scheduleUpdate() {
  _queue.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_updateSubscriptions();
  });
}

// This platform keeps no store account of its own: the device's store front is the one its
// owner set under "ORVStorefront", if any.
void OrvexSubscriptionManager::_initializeStorefront() {
  _queue.assertCurrent("_initializeStorefront");
  const auto storefront = _assembly.userDefaults->stringForKey(kORVStorefrontKey);
  if (storefront && !storefront->empty()) _updateStorefrontIdentifier(*storefront);
}

void OrvexSubscriptionManager::_storefrontChanged() {
  _queue.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_initializeStorefront();
  });
}

void OrvexSubscriptionManager::_updateStorefrontIdentifier(const std::string& storefront) {
  if (auto delegate = _delegate.lock()) {
    delegate->subscriptionManagerDidUpdateStorefrontIdentifier(storefront);
  }
}

void OrvexSubscriptionManager::_updateSubscriptions() {
  _queue.assertCurrent("_updateSubscriptions");
  _subscriptionsByProvider.clear();
  _expiryTimer.cancel();
  SubscriptionRegistry* registry = _assembly.subscriptionRegistry.get();
  if (registry != nullptr && registry->accountStatus() == kMediaStoreAccountStatusSubscribed) {
    _subscriptionsByProvider[kFirstPartyProvider] = nlohmann::json{
        {"provider", kFirstPartyProvider}, {"attribute", "premium"}, {"active", true}};
  }
  try {
    if (registry == nullptr) throw std::runtime_error("no subscription registry");
    std::vector<std::string> bundles, domains;
    std::optional<Duration> maximumLifetime;
    if (_bag) {
      bundles = _bag->subscriptionProviderBundleIdentifierWhitelist();
      domains = _bag->subscriptionProviderDomainWhitelist();
      if (const auto ttl = _bag->subscriptionTTL()) {
        maximumLifetime = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(*ttl));
      }
    }
    auto active = registry->activeSubscriptions(bundles, domains, maximumLifetime);
    for (auto& entry : active.entries) {
      std::string provider = entry.value("provider", "");
      _subscriptionsByProvider.insert_or_assign(std::move(provider), std::move(entry));
    }
    // The list changes by itself when its first entry expires.
    if (active.nextExpiry) {
      const auto wait = std::max(
          Duration::zero(),
          std::chrono::duration_cast<Duration>(*active.nextExpiry - _assembly.clock->wallNow()));
      _expiryTimer.arm(wait, weak_from_this(), [this] { _updateSubscriptions(); });
    }
  } catch (const std::exception& error) {
    subscriptionLog().error("Error fetching third party subscription information from daemon: %@",
                            std::string(error.what()));
  }
  _updateDelegate();
}

void OrvexSubscriptionManager::_updateDelegate() {
  _queue.assertCurrent("_updateDelegate");
  auto delegate = _delegate.lock();
  if (!delegate) return;
  std::vector<nlohmann::json> values;
  for (const auto& entry : _subscriptionsByProvider) values.push_back(entry.second);
  delegate->subscriptionManagerDidUpdateSubscriptionDictionaries(values);
}

}  // namespace orvex
