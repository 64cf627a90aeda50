// Builds every HTTP request the daemon sends: the bag fetch and the bag-cache key, the warm-up
// request, the five query kinds, resource downloads and the feedback upload.
//
// Each kind is a fixed recipe of query items and headers drawn from one device context (locale,
// languages, country, time zone, units, location, store front, subscriptions, managed mode,
// debug parameters) that the factory keeps current by listening to the system. Every recipe and
// every context update runs on the factory's one context queue, so a request always sees one
// consistent snapshot of the context. Recipes are synchronous and may be called from any thread
// except that queue; they answer none when the bag lacks the recipe's endpoint.
//
// Items are "default" (kept when the endpoint URL already carries one of that name) unless a
// recipe forces them: the query string, the query type, the client's own items and the debug
// items replace any the URL carries.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "orvexd/base/http_types.h"
#include "orvexd/model/interfaces/network_request_factory.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/network/subscription_manager.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/platform/language_detector.h"
#include "orvexd/platform/locale_provider.h"
#include "orvexd/platform/location_provider.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/system_change_monitor.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

class Assembly;
class BagController;

// Field-mask bit that leaves out the precise location and the installed-app signature.
inline constexpr unsigned kORVFieldMaskNoLocation = 1;
// The API key every query carries.
inline constexpr const char* kORVApiKey = "osprey4471";

// Where the factory's device context comes from.
struct DeviceContextServices {
  std::unique_ptr<LocaleProvider> locale;
  std::unique_ptr<LanguageDetector> language;
  std::unique_ptr<LocationProvider> location;
  // Files whose changes mean the locale or time zone changed; none watches nothing.
  std::optional<SystemChangePaths> changePaths;

  // The system's own: ICU, CLD2, GeoClue2 and the standard locale and time-zone files.
  static DeviceContextServices system(const std::string& xdgConfigHome);
};

class ORVNetworkRequestFactory final
    : public NetworkRequestFactory,
      public SubscriptionManagerDelegate,
      public std::enable_shared_from_this<ORVNetworkRequestFactory> {
 public:
  // Reads the context on the context queue, ahead of any recipe.
  ORVNetworkRequestFactory(Assembly& assembly, DeviceContextServices services);
  // Starts observing notifications and system changes; call once the factory is owned by a
  // shared_ptr.
  void start();
  ~ORVNetworkRequestFactory() override;

  std::optional<HttpRequest> bagFetchRequest(BagController& bagController,
                                             const std::string& userAgent,
                                             const std::optional<std::string>& version) override;
  std::optional<HttpRequest> bagCacheRequest(BagController& bagController,
                                             const std::string& userAgent,
                                             const std::optional<std::string>& version) override;
  std::optional<HttpRequest> warmRequest(const std::string& url) override;
  std::optional<HttpRequest> searchRequest(const ORVRequest& query, const ORVBag& bag,
                                           const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> zeroKeywordRequest(const ORVRequest& query, const ORVBag& bag,
                                                const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> moreResultsRequest(const ORVRequest& query, const ORVBag& bag,
                                                const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> lookupRequest(const ORVRequest& query, const ORVBag& bag,
                                           const Uuid& userGuid) override;
  std::optional<HttpRequest> cardRequest(const ORVRequest& query, const ORVBag& bag,
                                         const Uuid& userGuid) override;
  std::optional<HttpRequest> fileDownloadRequest(const std::string& url, const std::string& version,
                                                 bool includeLatLong) override;
  std::optional<HttpRequest> flusherUploadRequest(const std::string& url, Duration timeout,
                                                  const std::string& digest) override;
  void setPerformedSearch() override;
  std::string geoSessionEntityString() override;

  void subscriptionManagerDidUpdateSubscriptionDictionaries(
      const std::vector<nlohmann::json>& subscriptions) override;
  void subscriptionManagerDidUpdateStorefrontIdentifier(const std::string& storefront) override;

  // System change notices; each updates the context on the queue, and a locale change posts
  // "ORVBagRefreshRequired".
  void systemLocaleDidChange();
  void systemTimeZoneDidChange();

  // Lets tests wait until context updates posted so far have been applied.
  void waitForContextUpdates();

 private:
  // Everything below runs on _contextAccessQueue.
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
  // Posts one of the context-change notifications (country, time zone, locale, device
  // management) that per-client caches empty themselves on.
  void _postContextChange(const char* name);
  std::optional<std::string> _languageForString(const std::string& text) const;
  std::string _geoSessionEntity();

  // Item and header adders shared by the recipes.
  void addLocale(OrvexURLRequestBuilder& builder) const;
  void addSystemLanguage(OrvexURLRequestBuilder& builder) const;
  void addCountry(OrvexURLRequestBuilder& builder) const;
  void addLanguagesHeader(OrvexURLRequestBuilder& builder) const;
  void addKeyboard(OrvexURLRequestBuilder& builder, const ORVRequest& query) const;
  void addCalendarUnitsAndClock(OrvexURLRequestBuilder& builder) const;
  void addGeoMetadata(OrvexURLRequestBuilder& builder) const;
  void addLocation(OrvexURLRequestBuilder& builder) const;
  void addSignature(OrvexURLRequestBuilder& builder) const;
  void addStorefront(OrvexURLRequestBuilder& builder) const;
  void addManagedMode(OrvexURLRequestBuilder& builder) const;
  void addSubscriptions(OrvexURLRequestBuilder& builder) const;
  void addUserGuid(OrvexURLRequestBuilder& builder, const Uuid& userGuid) const;
  void addUserAgent(OrvexURLRequestBuilder& builder, const std::string& userAgent) const;
  void addScale(OrvexURLRequestBuilder& builder, const ORVRequest& query) const;
  void addGeoEnvironment(OrvexURLRequestBuilder& builder, const ORVBag& bag) const;
  void addGeoSession(OrvexURLRequestBuilder& builder);
  void addQueryAndDebugItems(OrvexURLRequestBuilder& builder, const ORVRequest& query) const;
  std::optional<OrvexURLRequestBuilder> bagBuilder(BagController& bagController,
                                                   const std::optional<std::string>& version);
  HttpRequest queryRequest(const OrvexURLRequestBuilder& builder, const ORVBag& bag) const;

  // Runs a recipe on the context queue (inline when already on it).
  template <typename F>
  auto onContextQueue(F recipe) -> decltype(recipe());

  Assembly& _assembly;
  DeviceContextServices _services;
  SerialQueue _contextAccessQueue;  // "com.zelmor.orvexd.requestfactory.context"

  // Owned by _contextAccessQueue.
  std::string _localeIdentifier;
  std::string _localeCalendarIdentifier;
  std::optional<std::string> _localeMeasurementSystem;  // "SI", "US" or "UK"
  std::optional<std::string> _is24hDateFormat;          // "1"
  std::string _localTimeZoneName;
  std::string _effectiveSystemLanguage;
  std::string _preferredLanguages;  // JSON array text
  std::string _geoDeviceCountryCode;
  std::string _localeRegionCode;
  std::optional<LocationFix> _geoLocation;
  std::string _geoLocationLatLng;
  std::string _geoLocationSource;
  std::string _lookupGeoLocationLatLng;
  std::optional<std::string> _geoClientMetadata;
  std::set<std::string> supportedGeoLocationSources;
  bool _locationAuthorized = false;
  bool _locationServicesSetUp = false;  // the once-per-process set-up after the first bag
  bool _locationUpdatesStarted = false;
  std::optional<std::string> _geoSessionEntityString;  // reset with each new user GUID
  std::string _storeFrontIdentifier;
  std::string _storeFrontFromSubscriptions;
  std::optional<std::string> _subscriptionInfo;
  bool _isManagedAccount = false;
  // Set once the overrides have been read the first time.
  bool _deviceContextKnown = false;
  std::vector<URLQueryItem> _debuggingQueryItems;
  std::string _orvexdUserAgent;
  std::optional<bool> _hashtagImagesVisible;

  // Set once by start(); released before the queue.
  std::vector<ObserverToken> _observers;
  std::unique_ptr<SystemChangeMonitor> _changeMonitor;
};

}  // namespace orvex
