#include "orvexd/core/subscriptions_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include <string>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/subscription_manager.h"
#include "orvexd/model/interfaces/subscription_registry.h"
#include "orvexd/platform/application_identity.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/defaults_store.h"

namespace orvex {

namespace {

const OrvexLog& subscriptionLog() { return OrvexLogForCategory(kOrvexLogSubscription); }

// The application that sent `call`; the call ends with AccessDenied when it cannot be named.
std::string callingApplication(const sdbus::Message& call, const char* member) {
  std::optional<std::string> application;
  try {
    application = applicationIdForProcess(call.getCredsPid());
  } catch (const sdbus::Error& e) {
    subscriptionLog().error("cannot read the process of %@: %@", call.getSender(), e.getMessage());
  }
  if (!application || application->empty()) {
    throw sdbus::Error(kOrvexErrorAccessDenied,
                       std::string(member).append(": the calling application cannot be named"));
  }
  return *application;
}

SubscriptionRegistry& registryOf(Assembly& assembly) {
  if (!assembly.subscriptionRegistry) {
    throw sdbus::Error(kOrvexErrorNotSupported, "the daemon keeps no subscription registry");
  }
  return *assembly.subscriptionRegistry;
}

// The subscriptions the next request carries. Reading them waits for the update a change just
// asked for, and so for the request factory to have it.
std::vector<nlohmann::json> currentSubscriptions(Assembly& assembly) {
  return assembly.subscriptionManager ? assembly.subscriptionManager->subscriptions()
                                      : std::vector<nlohmann::json>();
}

}  // namespace

SubscriptionsService::SubscriptionsService(sdbus::IConnection& connection, Assembly& assembly)
    : object_(sdbus::createObject(connection, kOrvexSubscriptionsPath)) {
  sdbus::IObject* object = object_.get();
  object_->registerMethod("Publish")
      .onInterface(kOrvexSubscriptionsInterface)
      .withInputParamNames("information")
      .implementedAs([&assembly, object](const std::string& information) {
        runBusHandler("Publish", [&] {
          const std::string provider =
              callingApplication(*object->getCurrentlyProcessedMessage(), "Publish");
          if (auto refusal = registryOf(assembly).publish(provider, information)) {
            throw sdbus::Error(
                refusal->reason == SubscriptionRegistry::Refusal::Reason::kTooManyProviders
                    ? kOrvexErrorLimitsExceeded
                    : kOrvexErrorInvalidArgument,
                refusal->message);
          }
          (void)currentSubscriptions(assembly);
        });
      });
  object_->registerMethod("Withdraw")
      .onInterface(kOrvexSubscriptionsInterface)
      .implementedAs([&assembly, object]() {
        runBusHandler("Withdraw", [&] {
          registryOf(assembly).withdraw(
              callingApplication(*object->getCurrentlyProcessedMessage(), "Withdraw"));
          (void)currentSubscriptions(assembly);
        });
      });
  object_->registerMethod("List")
      .onInterface(kOrvexSubscriptionsInterface)
      .withOutputParamNames("subscriptions")
      .implementedAs([&assembly]() -> std::string {
        return runBusHandler("List", [&] {
          return jsonTextForBus(
              nlohmann::json(currentSubscriptions(assembly))
                  .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        });
      });
  object_->registerMethod("SetAccountStatus")
      .onInterface(kOrvexSubscriptionsInterface)
      .withInputParamNames("status")
      .implementedAs([&assembly, object](uint32_t status) {
        runBusHandler("SetAccountStatus", [&] {
          const std::string caller =
              callingApplication(*object->getCurrentlyProcessedMessage(), "SetAccountStatus");
          const auto mediaStore = assembly.userDefaults->stringForKey(kORVMediaStoreIdentifierKey);
          if (!mediaStore || mediaStore->empty() || *mediaStore != caller) {
            subscriptionLog().error("SetAccountStatus refused to %@: not the media store", caller);
            throw sdbus::Error(kOrvexErrorAccessDenied,
                               "SetAccountStatus is only for the media store application");
          }
          registryOf(assembly).setAccountStatus(status);
          (void)currentSubscriptions(assembly);
        });
      });
  object_->finishRegistration();
}

SubscriptionsService::~SubscriptionsService() = default;

}  // namespace orvex
