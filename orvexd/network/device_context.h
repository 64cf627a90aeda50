// The device context every request is built from: locale, languages, country, time zone, units,
// location, store front, subscriptions, managed mode and the debug parameters.
//
// DeviceContext keeps it current by listening to the system (locale and time-zone files, the
// location service, the subscription manager, the bag, the user GUID) and hands out snapshots:
// plain values copied out under the context queue, so a request always sees one consistent
// reading. The device owner's overrides (country, store front, managed mode) may change at any
// time and are read afresh with each snapshot.
//
// Context changes are announced in the name of the request factory that owns the context
// ("ORVBagRefreshRequired" when something in the bag's key changed, and the per-client cache
// notifications for country, time zone, locale and device management), always posted
// asynchronously from the context queue so that observers never run inside an update.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "orvexd/model/orv_bag.h"
#include "orvexd/network/device_context_snapshot.h"
#include "orvexd/network/subscription_manager.h"
#include "orvexd/platform/language_detector.h"
#include "orvexd/platform/locale_provider.h"
#include "orvexd/platform/location_provider.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/system_change_monitor.h"

namespace orvex {

class Assembly;

// Where the device context comes from.
struct DeviceContextServices {
  std::unique_ptr<LocaleProvider> locale;
  std::unique_ptr<LanguageDetector> language;
  std::unique_ptr<LocationProvider> location;
  // Files whose changes mean the locale or time zone changed; none watches nothing.
  std::optional<SystemChangePaths> changePaths;

  // The system's own: ICU, CLD2, GeoClue2 and the standard locale and time-zone files.
  static DeviceContextServices system(const std::string& xdgConfigHome);
};

class DeviceContext final : public SubscriptionManagerDelegate,
                            public std::enable_shared_from_this<DeviceContext> {
 public:
  // Reads the context on the context queue, ahead of any snapshot. `notificationSender` is what
  // the change notifications carry as their sender; it is only compared, never followed.
  DeviceContext(Assembly& assembly, DeviceContextServices services, const void* notificationSender);
  // Starts observing notifications and system changes; call once the context is owned by a
  // shared_ptr.
  void start();
  // Stops listening and posting: no notification goes out in the sender's name once this
  // returns. Call before the sender goes away.
  void stop();
  ~DeviceContext() override;

  // The context as of now, the overrides read afresh. `startLocationUpdates` starts the location
  // service once the first bag has said which sources it accepts; the first fix reaches later
  // snapshots. May be called from any thread.
  DeviceContextSnapshot snapshot(bool startLocationUpdates);
  // The device country ("cc"), the overrides read afresh.
  std::string countryCode();
  // The maps user-session identifier; a new one is made after each user GUID change.
  std::string geoSessionEntityString();
  // The user has searched: downloads may carry the precise position from now on.
  void setPerformedSearch();
  // The detector for the languages of a lookup's texts; callable from any thread.
  const LanguageDetector* languageDetector() const { return services_.language.get(); }

  void subscriptionManagerDidUpdateSubscriptionDictionaries(
      const std::vector<nlohmann::json>& subscriptions) override;
  void subscriptionManagerDidUpdateStorefrontIdentifier(const std::string& storefront) override;

  // System change notices; each updates the context on the queue, and a locale change asks for
  // a fresh bag.
  void systemLocaleDidChange();
  void systemTimeZoneDidChange();

  // Lets tests wait until the updates posted so far have been applied.
  void waitForUpdates();

 private:
  // Everything below runs on contextAccessQueue_.
  void _updateLocaleContexts(bool notify);
  void _updateTimeZone();
  // Whether the device country changed.
  bool _updateDeviceOverrides();
  void _refreshDeviceOverrides();
  void _setupDebuggingQueryItems();
  void _didGetBag(const std::shared_ptr<const ORVBag>& bag);
  void _updateHashtagImagesVisibility(const ORVBag& bag);
  void _startLocationUpdates();
  void _locationDidUpdate(const LocationUpdate& update);
  void _setLocationIfAllowedByBag(const LocationFix& fix);
  void _setLocation(const LocationFix& fix);
  void _dropLocation(const std::string& reason);
  void _notifyBagRefreshRequired();
  // Posts one of the notifications in the sender's name, from the queue, asynchronously.
  void _postContextChange(const char* name);
  std::string _geoSessionEntity();

  // Runs `job` on the context queue (inline when already on it).
  template <typename F>
  auto onContextQueue(F job) -> decltype(job());

  Assembly& assembly_;
  DeviceContextServices services_;
  SerialQueue contextAccessQueue_;  // "com.zelmor.orvexd.requestfactory.context"

  // Owned by contextAccessQueue_.
  const void* notificationSender_;  // cleared by stop()
  std::string localeIdentifier_;
  std::string localeCalendarIdentifier_;
  std::optional<std::string> localeMeasurementSystem_;  // "SI", "US" or "UK"
  std::optional<std::string> is24hDateFormat_;          // "1"
  std::string localTimeZoneName_;
  std::string effectiveSystemLanguage_;
  std::string preferredLanguages_;  // JSON array text
  std::string geoDeviceCountryCode_;
  std::string localeRegionCode_;
  std::optional<LocationFix> geoLocation_;
  std::string geoLocationLatLng_;
  std::string geoLocationSource_;
  std::string lookupGeoLocationLatLng_;
  std::optional<std::string> geoClientMetadata_;
  std::set<std::string> supportedGeoLocationSources_;
  bool locationAuthorized_ = false;
  bool locationServicesSetUp_ = false;  // the once-per-process set-up after the first bag
  bool locationUpdatesStarted_ = false;
  std::optional<std::string> geoSessionEntityString_;  // reset with each new user GUID
  std::string storeFrontIdentifier_;
  std::string storeFrontFromSubscriptions_;
  std::optional<std::string> subscriptionInfo_;
  bool isManagedAccount_ = false;
  // Set once the overrides have been read the first time.
  bool deviceContextKnown_ = false;
  std::vector<URLQueryItem> debuggingQueryItems_;
  std::optional<bool> hashtagImagesVisible_;

  // Set once by start(), released by stop() or before the queue.
  std::vector<ObserverToken> observers_;
  std::unique_ptr<SystemChangeMonitor> changeMonitor_;
};

}  // namespace orvex
