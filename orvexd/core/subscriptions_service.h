// com.zelmor.orvexd.Subscriptions on /com/zelmor/orvexd/Subscriptions: the device's subscription
// registry, through which applications tell the daemon of the user's subscriptions with them.
// The provider is always the calling application, named as a client is (Flatpak id, app unit,
// else executable name).
//
//   Publish(s information)      publishes the caller's subscription: JSON or a key-value list
//                               with "type", "expires" (seconds from now) and optionally
//                               "domain"; a text that does not read ends the call with
//                               InvalidArgument and the reason, a new provider beyond the
//                               registry's bound with LimitsExceeded
//   Withdraw()                  forgets the caller's subscription
//   List() -> s                 the JSON array the next request's "X-Zelmor-Subscriptions"
//                               header carries ("[]" when there is none)
//   SetAccountStatus(u status)  the media store's account status (3: subscribed); only from
//                               the application named by "ORVMediaStoreIdentifier"
//                               (AccessDenied)
//
// Handlers run on the bus thread and return once the change has reached the request factory, so
// that the caller's next request carries it.
#pragma once

#include <memory>

namespace sdbus {
class IConnection;
class IObject;
}  // namespace sdbus

namespace orvex {

class Assembly;

class SubscriptionsService {
 public:
  SubscriptionsService(sdbus::IConnection& connection, Assembly& assembly);
  ~SubscriptionsService();
  SubscriptionsService(const SubscriptionsService&) = delete;
  SubscriptionsService& operator=(const SubscriptionsService&) = delete;

 private:
  std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace orvex
