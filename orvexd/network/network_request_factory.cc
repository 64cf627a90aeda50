#include "orvexd/network/network_request_factory.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "orvexd/base/log_format.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/input_defaults.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& requestLog() { return OrvexLogForCategory(kOrvexLogRequest); }

// The maps resource environment the daemon's requests are answered from.
constexpr const char* kGeoEnvironmentName = "PROD";
// Bag key telling whether results may show hashtag images, and the defaults key through which
// the daemon publishes it to the rest of the system.
constexpr const char* kHashtagImagesBagKey = "hashtag_images";
constexpr const char* kHashtagImagesVisibleKey = "ORVHashtagImagesVisible";

std::string printfString(const char* format, double a, double b) {
  char text[128];
  std::snprintf(text, sizeof text, format, a, b);
  return text;
}

std::optional<std::string> measurementSystemName(MeasurementSystem system) {
  switch (system) {
    case MeasurementSystem::kMetric:
      return "SI";
    case MeasurementSystem::kUS:
      return "US";
    case MeasurementSystem::kUK:
      return "UK";
    case MeasurementSystem::kOther:
      break;
  }
  return std::nullopt;
}

// The kind of positioning a fix came from, as the back-end names it.
std::string _locationSourceForLocation(const LocationFix& fix) {
  switch (fix.type) {
    case 1:
    case 2:
    case 3:
    case 9:
      return "gps";
    case 6:
    case 7:
    case 8:
      return "cell";
    case 4:
    case 5:
      return "wifi";
    default:
      return "unknown";
  }
}

std::string upper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

}  // namespace

DeviceContextServices DeviceContextServices::system(const std::string& xdgConfigHome) {
  DeviceContextServices services;
  services.locale = makeSystemLocaleProvider();
  services.language = makeLanguageDetector();
  services.location = makeGeoClueLocationProvider(kORVOrvexdIdentifier);
  services.changePaths = SystemChangePaths::standard(xdgConfigHome);
  return services;
}

ORVNetworkRequestFactory::ORVNetworkRequestFactory(Assembly& assembly,
                                                   DeviceContextServices services)
    : _assembly(assembly),
      _services(std::move(services)),
      _contextAccessQueue("com.zelmor.orvexd.requestfactory.context", *assembly.workerPool,
                          *assembly.clock),
      _orvexdUserAgent(kORVOrvexdNameVersion) {
  // Reading the locale loads ICU's data, which start-up need not wait for: the first context is
  // read on the queue, where every recipe runs after it.
  _contextAccessQueue.async([this] {
    _updateLocaleContexts(false);
    _setupDebuggingQueryItems();
  });
}

ORVNetworkRequestFactory::~ORVNetworkRequestFactory() {
  // The first context read holds `this`; let it finish. Later jobs hold the factory weakly.
  if (!_contextAccessQueue.isCurrent()) (void)_contextAccessQueue.sync([] {});
  _changeMonitor.reset();
  _observers.clear();
  if (_services.location) _services.location->stopUpdates();
}

void ORVNetworkRequestFactory::start() {
  std::weak_ptr<ORVNetworkRequestFactory> weak = weak_from_this();
  NotificationCenter& center = *_assembly.notificationCenter;
  _observers.push_back(
      center.addObserver(kORVBagChangeNotification, nullptr, [weak](const Notification& note) {
        const auto* bag = note.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
        if (bag == nullptr || !*bag) return;
        if (auto self = weak.lock()) {
          self->_contextAccessQueue.async([weak, bag = *bag] {
            if (auto self = weak.lock()) self->_didGetBag(bag);
          });
        }
      }));
  _observers.push_back(
      center.addObserver(kORVUserGUIDChangeNotification, nullptr, [weak](const Notification&) {
        if (auto self = weak.lock()) {
          self->_contextAccessQueue.async([weak] {
            if (auto self = weak.lock()) self->_geoSessionEntityString.reset();
          });
        }
      }));
  if (_services.changePaths) {
    _changeMonitor = makeSystemChangeMonitor(*_assembly.workerPool, *_services.changePaths,
                                             [weak](SystemChange change) {
                                               auto self = weak.lock();
                                               if (!self) return;
                                               if (change == SystemChange::kLocale) {
                                                 self->systemLocaleDidChange();
                                               } else {
                                                 self->systemTimeZoneDidChange();
                                               }
                                             });
  }
}

template <typename F>
auto ORVNetworkRequestFactory::onContextQueue(F recipe) -> decltype(recipe()) {
  if (_contextAccessQueue.isCurrent()) return recipe();
  auto result = _contextAccessQueue.syncResult(std::move(recipe));
  if (!result) return {};
  return std::move(*result);
}

void ORVNetworkRequestFactory::waitForContextUpdates() {
  (void)_contextAccessQueue.sync([] {});
}

// ---------------------------------------------------------------------------------------------
// Context updates

void ORVNetworkRequestFactory::_updateLocaleContexts(bool notify) {
  _contextAccessQueue.assertCurrent("_updateLocaleContexts");
  const LocaleSnapshot locale = _services.locale->currentLocale();
  _localeIdentifier = locale.localeIdentifier;
  _localeCalendarIdentifier = locale.calendarIdentifier;
  _localeMeasurementSystem = measurementSystemName(locale.measurementSystem);

  std::vector<std::string> languages = locale.preferredLanguages;
  if (languages.size() > 3) languages.resize(3);
  try {
    _preferredLanguages = nlohmann::json(languages).dump();
  } catch (const nlohmann::json::exception& error) {
    requestLog().error("Error encoding preferred languages %@.", std::string(error.what()));
  }

  _effectiveSystemLanguage = locale.effectiveSystemLanguage;
  _localTimeZoneName = locale.timeZoneName;
  _localeRegionCode = locale.regionCode;
  if (locale.hourCyclePattern.find("HH") != std::string::npos) {
    _is24hDateFormat = "1";
  } else {
    _is24hDateFormat.reset();
  }
  _updateDeviceOverrides();
  if (notify) _notifyBagRefreshRequired();
}

void ORVNetworkRequestFactory::_updateTimeZone() {
  _contextAccessQueue.assertCurrent("_updateTimeZone");
  _localTimeZoneName = _services.locale->currentLocale().timeZoneName;
}

// Values the device's owner may set in the defaults store, each replacing what the system says.
bool ORVNetworkRequestFactory::_updateDeviceOverrides() {
  _contextAccessQueue.assertCurrent("_updateDeviceOverrides");
  DefaultsStore& defaults = *_assembly.userDefaults;
  const std::string previousCountry = _geoDeviceCountryCode;
  const bool previouslyManaged = _isManagedAccount;
  if (auto country = defaults.stringForKey(kORVCountryCodeKey); country && !country->empty()) {
    _geoDeviceCountryCode = upper(*country);
  } else {
    _geoDeviceCountryCode = _localeRegionCode;
  }
  if (auto storefront = defaults.stringForKey(kORVStorefrontKey);
      storefront && !storefront->empty()) {
    _storeFrontIdentifier = *storefront;
  } else {
    _storeFrontIdentifier = _storeFrontFromSubscriptions;
  }
  _isManagedAccount = defaults.boolForKey(kORVManagedAccountKey);
  // The first reading sets the context up; only later ones are changes.
  if (_deviceContextKnown) {
    if (_geoDeviceCountryCode != previousCountry) {
      _postContextChange(kORVCountryCodeChangeNotification);
    }
    if (_isManagedAccount != previouslyManaged) {
      _postContextChange(kORVDeviceManagementChangeNotification);
    }
  }
  _deviceContextKnown = true;
  return _geoDeviceCountryCode != previousCountry;
}

// The overrides may be changed at any time; each recipe reads them afresh, and a new country
// (which is part of the bag's key) asks for a fresh bag.
void ORVNetworkRequestFactory::_refreshDeviceOverrides() {
  if (_updateDeviceOverrides()) _notifyBagRefreshRequired();
}

void ORVNetworkRequestFactory::_setupDebuggingQueryItems() {
  _contextAccessQueue.assertCurrent("_setupDebuggingQueryItems");
  _debuggingQueryItems.clear();
  const std::string parameters =
      _assembly.userDefaults->stringForKey(kORVDebugParametersKey).value_or("");
  requestLog().info("processing debug parameters: (%@)", parameters);
  if (parameters.empty()) return;
  size_t start = 0;
  while (start <= parameters.size()) {
    size_t end = parameters.find('&', start);
    if (end == std::string::npos) end = parameters.size();
    const std::string part = parameters.substr(start, end - start);
    const size_t equals = part.find('=');
    if (equals == std::string::npos || part.find('=', equals + 1) != std::string::npos) {
      requestLog().error("invalid query components: %@", part);
      return;
    }
    _debuggingQueryItems.push_back(URLQueryItem{part.substr(0, equals), part.substr(equals + 1)});
    start = end + 1;
  }
}

void ORVNetworkRequestFactory::systemLocaleDidChange() {
  _contextAccessQueue.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->_updateLocaleContexts(true);
    self->_postContextChange(kORVLocaleChangeNotification);
  });
}

void ORVNetworkRequestFactory::systemTimeZoneDidChange() {
  _contextAccessQueue.async([weak = weak_from_this()] {
    // The time zone is no part of the bag's key: nothing to refresh.
    auto self = weak.lock();
    if (!self) return;
    self->_updateTimeZone();
    self->_postContextChange(kORVTimeZoneChangeNotification);
  });
}

void ORVNetworkRequestFactory::_postContextChange(const char* name) {
  // Posted from the queue, asynchronously, like the refresh request below.
  _contextAccessQueue.async([weak = weak_from_this(), name] {
    auto self = weak.lock();
    if (!self) return;
    const NetworkRequestFactory* sender = self.get();
    self->_assembly.notificationCenter->post(name, sender);
  });
}

void ORVNetworkRequestFactory::_notifyBagRefreshRequired() {
  // Posted from the queue, asynchronously, so that observers never run inside a context update.
  // The sender is the factory as the Assembly holds it, which is what observers compare with.
  _contextAccessQueue.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    const NetworkRequestFactory* sender = self.get();
    self->_assembly.notificationCenter->post(kORVBagRefreshRequiredNotification, sender);
  });
}

void ORVNetworkRequestFactory::subscriptionManagerDidUpdateSubscriptionDictionaries(
    const std::vector<nlohmann::json>& subscriptions) {
  std::optional<std::string> header;
  if (!subscriptions.empty()) {
    try {
      header = nlohmann::json(subscriptions).dump();
    } catch (const nlohmann::json::exception& error) {
      requestLog().error("Error encoding subscriptions %@.", std::string(error.what()));
    }
  }
  _contextAccessQueue.async([weak = weak_from_this(), header = std::move(header)] {
    if (auto self = weak.lock()) self->_subscriptionInfo = header;
  });
}

void ORVNetworkRequestFactory::subscriptionManagerDidUpdateStorefrontIdentifier(
    const std::string& storefront) {
  _contextAccessQueue.async([weak = weak_from_this(), storefront] {
    auto self = weak.lock();
    if (!self) return;
    self->_storeFrontFromSubscriptions = storefront;
    self->_updateDeviceOverrides();
  });
}

// ---------------------------------------------------------------------------------------------
// Bag and location

void ORVNetworkRequestFactory::_didGetBag(const std::shared_ptr<const ORVBag>& bag) {
  _contextAccessQueue.assertCurrent("_didGetBag");
  supportedGeoLocationSources = bag->supportedGeoLocationSources();
  // Location services are set up once, after the first bag says which sources it accepts;
  // updates start with the first request that needs them.
  _locationServicesSetUp = true;
  // A held fix is judged again against the sources the new bag accepts.
  if (_locationAuthorized && _geoLocation) _setLocationIfAllowedByBag(*_geoLocation);
  _updateHashtagImagesVisibility(*bag);
}

void ORVNetworkRequestFactory::_updateHashtagImagesVisibility(const ORVBag& bag) {
  const BagDictionary& value = bag.valueForKey(kHashtagImagesBagKey);
  const bool visible = value.is_boolean() && value.get<bool>();
  if (_hashtagImagesVisible == visible) return;
  _hashtagImagesVisible = visible;
  _assembly.userDefaults->setObject(kHashtagImagesVisibleKey, PlistValue(visible));
  _assembly.userDefaults->synchronize();
}

void ORVNetworkRequestFactory::_startLocationUpdates() {
  _contextAccessQueue.assertCurrent("_startLocationUpdates");
  if (!_locationServicesSetUp || _locationUpdatesStarted || !_services.location) return;
  _locationUpdatesStarted = true;
  _services.location->startUpdates([weak = weak_from_this()](const LocationUpdate& update) {
    auto self = weak.lock();
    if (!self) return;
    self->_contextAccessQueue.async([weak, update] {
      if (auto self = weak.lock()) self->_locationDidUpdate(update);
    });
  });
}

void ORVNetworkRequestFactory::_locationDidUpdate(const LocationUpdate& update) {
  _contextAccessQueue.assertCurrent("_locationDidUpdate");
  _locationAuthorized = update.authorized;
  if (!update.authorized) {
    _geoLocation.reset();
    _dropLocation("userno");
    return;
  }
  if (!update.fix) return;
  _geoLocation = update.fix;
  _setLocationIfAllowedByBag(*update.fix);
}

void ORVNetworkRequestFactory::_setLocationIfAllowedByBag(const LocationFix& fix) {
  _contextAccessQueue.assertCurrent("_setLocationIfAllowedByBag");
  const std::string source = _locationSourceForLocation(fix);
  if (supportedGeoLocationSources.count(source) == 0) {
    _dropLocation(formatLog("%@.%@", "bagno", source));
    return;
  }
  _setLocation(fix);
}

void ORVNetworkRequestFactory::_setLocation(const LocationFix& fix) {
  _contextAccessQueue.assertCurrent("_setLocation");
  _geoLocationLatLng = printfString("%f,%f", fix.latitude, fix.longitude);
  char accuracy[64];
  std::snprintf(accuracy, sizeof accuracy, ",%f", fix.horizontalAccuracy);
  _geoLocationLatLng += accuracy;
  _geoLocationSource = _locationSourceForLocation(fix);
  _geoClientMetadata.reset();
  // Downloads get a position rounded to whole degrees until the user has searched.
  if (_lookupGeoLocationLatLng.empty()) {
    _lookupGeoLocationLatLng =
        printfString("%f,%f", std::trunc(fix.latitude), std::trunc(fix.longitude));
  }
}

// Requests then carry no position; the reason why is sent instead as the geo metadata, so the
// back-end can tell a refused user from a source it does not accept.
void ORVNetworkRequestFactory::_dropLocation(const std::string& reason) {
  _contextAccessQueue.assertCurrent("_dropLocation");
  requestLog().debug("location not sent: %@", reason);
  _geoLocationLatLng.clear();
  _geoLocationSource.clear();
  _geoClientMetadata = reason;
}

void ORVNetworkRequestFactory::setPerformedSearch() {
  _contextAccessQueue.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self || !self->_geoLocation || self->_geoLocationLatLng.empty()) return;
    self->_lookupGeoLocationLatLng =
        printfString("%f,%f", self->_geoLocation->latitude, self->_geoLocation->longitude);
  });
}

std::string ORVNetworkRequestFactory::_geoSessionEntity() {
  _contextAccessQueue.assertCurrent("_geoSessionEntity");
  if (!_geoSessionEntityString) _geoSessionEntityString = Uuid::random().upperString();
  return *_geoSessionEntityString;
}

std::string ORVNetworkRequestFactory::geoSessionEntityString() {
  return onContextQueue([this] { return _geoSessionEntity(); });
}

std::optional<std::string> ORVNetworkRequestFactory::_languageForString(
    const std::string& text) const {
  if (text.empty() || !_services.language) return std::nullopt;
  std::string language = _services.language->languageOf(text);
  if (language.empty() || language == kUndeterminedLanguage) return std::nullopt;
  return language;
}

// ---------------------------------------------------------------------------------------------
// Item and header adders

void ORVNetworkRequestFactory::addLocale(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addLocale");
  builder.defaultQueryItemWithName("locale", _localeIdentifier);
}

void ORVNetworkRequestFactory::addSystemLanguage(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addSystemLanguage");
  if (!_effectiveSystemLanguage.empty()) {
    builder.defaultQueryItemWithName("esl", _effectiveSystemLanguage);
  }
}

void ORVNetworkRequestFactory::addCountry(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addCountry");
  if (!_geoDeviceCountryCode.empty()) builder.defaultQueryItemWithName("cc", _geoDeviceCountryCode);
}

void ORVNetworkRequestFactory::addLanguagesHeader(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addLanguagesHeader");
  if (!_preferredLanguages.empty()) {
    builder.defaultHttpHeaderWithName("X-Zelmor-Languages", _preferredLanguages);
  }
}

void ORVNetworkRequestFactory::addKeyboard(OrvexURLRequestBuilder& builder,
                                           const ORVRequest& query) const {
  _contextAccessQueue.assertCurrent("addKeyboard");
  std::string mode = query.keyboardInputMode;
  if (mode.empty()) {
    mode = _assembly.userDefaults->stringForKey(kORVKeyboardInputModeKey).value_or("");
  }
  if (!mode.empty()) builder.defaultQueryItemWithName("kb_ime", mode);
}

void ORVNetworkRequestFactory::addCalendarUnitsAndClock(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addCalendarUnitsAndClock");
  if (!_localeCalendarIdentifier.empty()) {
    builder.defaultQueryItemWithName("calendar", _localeCalendarIdentifier);
  }
  if (!_localTimeZoneName.empty())
    builder.defaultQueryItemWithName("time_zone", _localTimeZoneName);
  if (_localeMeasurementSystem)
    builder.defaultQueryItemWithName("units", *_localeMeasurementSystem);
  if (_is24hDateFormat) builder.defaultQueryItemWithName("24h", *_is24hDateFormat);
}

void ORVNetworkRequestFactory::addGeoMetadata(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addGeoMetadata");
  if (_geoClientMetadata)
    builder.defaultHttpHeaderWithName("X-Zelmor-GeoMetadata", *_geoClientMetadata);
}

void ORVNetworkRequestFactory::addLocation(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addLocation");
  if (!_geoLocationLatLng.empty()) builder.defaultQueryItemWithName("latlng", _geoLocationLatLng);
  if (!_geoLocationSource.empty()) builder.defaultQueryItemWithName("geosrc", _geoLocationSource);
}

void ORVNetworkRequestFactory::addSignature(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addSignature");
  if (!_assembly.appWhitelistController) return;
  if (auto signature = _assembly.appWhitelistController->whitelistSignature();
      signature && !signature->empty()) {
    builder.defaultHttpHeaderWithName("X-Zelmor-Whitelisted-App-Signature", *signature);
  }
}

void ORVNetworkRequestFactory::addStorefront(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addStorefront");
  if (!_storeFrontIdentifier.empty()) {
    builder.defaultQueryItemWithName("storefront", _storeFrontIdentifier);
  }
}

void ORVNetworkRequestFactory::addManagedMode(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addManagedMode");
  if (_isManagedAccount) builder.defaultQueryItemWithName("mode", "managed");
}

void ORVNetworkRequestFactory::addSubscriptions(OrvexURLRequestBuilder& builder) const {
  _contextAccessQueue.assertCurrent("addSubscriptions");
  if (_subscriptionInfo)
    builder.defaultHttpHeaderWithName("X-Zelmor-Subscriptions", *_subscriptionInfo);
}

void ORVNetworkRequestFactory::addUserGuid(OrvexURLRequestBuilder& builder,
                                           const Uuid& userGuid) const {
  _contextAccessQueue.assertCurrent("addUserGuid");
  builder.defaultHttpHeaderWithName("X-Zelmor-UserGuid", userGuid.upperString());
}

void ORVNetworkRequestFactory::addUserAgent(OrvexURLRequestBuilder& builder,
                                            const std::string& userAgent) const {
  _contextAccessQueue.assertCurrent("addUserAgent");
  if (!userAgent.empty()) builder.defaultHttpHeaderWithName("User-Agent", userAgent);
}

// The client's screen scale; when it gives none, the device's.
void ORVNetworkRequestFactory::addScale(OrvexURLRequestBuilder& builder,
                                        const ORVRequest& query) const {
  _contextAccessQueue.assertCurrent("addScale");
  double scale = query.scale;
  if (!(scale > 0) || !std::isfinite(scale)) {
    const auto deviceScale = mainScreenScale(*_assembly.userDefaults);
    if (!deviceScale) return;
    scale = *deviceScale;
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.1f", scale);
  builder.defaultHttpHeaderWithName("X-Zelmor-UI-Scale", text);
}

void ORVNetworkRequestFactory::addGeoEnvironment(OrvexURLRequestBuilder& builder,
                                                 const ORVBag& bag) const {
  _contextAccessQueue.assertCurrent("addGeoEnvironment");
  if (bag.sendGeoEnvironmentHeader()) {
    builder.defaultHttpHeaderWithName("X-Zelmor-GeoEnvironment", kGeoEnvironmentName);
  }
}

void ORVNetworkRequestFactory::addGeoSession(OrvexURLRequestBuilder& builder) {
  _contextAccessQueue.assertCurrent("addGeoSession");
  const std::string session = _geoSessionEntity();
  if (!session.empty()) builder.defaultHttpHeaderWithName("X-Zelmor-GeoSession", session);
}

void ORVNetworkRequestFactory::addQueryAndDebugItems(OrvexURLRequestBuilder& builder,
                                                     const ORVRequest& query) const {
  _contextAccessQueue.assertCurrent("addQueryAndDebugItems");
  builder.forceQueryItemsFromArray(query.queryItems);
  builder.forceQueryItemsFromArray(_debuggingQueryItems);
}

std::optional<OrvexURLRequestBuilder> ORVNetworkRequestFactory::bagBuilder(
    BagController& bagController, const std::optional<std::string>& version) {
  const std::string url = bagController.bagFetchURLWithCountry(_geoDeviceCountryCode);
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(url);
  if (!builder) {
    requestLog().error("invalid bag URL %@", url);
    return std::nullopt;
  }
  if (version && !version->empty()) builder->defaultQueryItemWithName("version", *version);
  return builder;
}

HttpRequest ORVNetworkRequestFactory::queryRequest(const OrvexURLRequestBuilder& builder,
                                                   const ORVBag& bag) const {
  HttpRequest request = builder.createMutableUrlRequest();
  if (auto timeout = bag.timeoutIntervalForRequest()) {
    request.timeout = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(*timeout));
  }
  return request;
}

namespace {

std::optional<OrvexURLRequestBuilder> builderForEndpoint(const std::optional<std::string>& url,
                                                         const char* recipe) {
  if (!url) return std::nullopt;
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(*url);
  if (!builder) requestLog().error("invalid %s URL %@", recipe, *url);
  return builder;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Recipes

std::optional<HttpRequest> ORVNetworkRequestFactory::bagFetchRequest(
    BagController& bagController, const std::string& userAgent,
    const std::optional<std::string>& version) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = bagBuilder(bagController, version);
    if (!builder) return std::nullopt;
    builder->defaultQueryItemWithName("key", kORVApiKey);
    builder->forceQueryItemsFromArray(_debuggingQueryItems);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    addCountry(*builder);
    addUserAgent(*builder, userAgent);
    HttpRequest request = builder->createMutableUrlRequest();
    request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
    return request;
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::bagCacheRequest(
    BagController& bagController, const std::string& userAgent,
    const std::optional<std::string>& version) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = bagBuilder(bagController, version);
    if (!builder) return std::nullopt;
    builder->forceQueryItemsFromArray(_debuggingQueryItems);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addCountry(*builder);
    if (!userAgent.empty()) builder->defaultQueryItemWithName("agent", userAgent);
    return builder->createMutableUrlRequest();
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::warmRequest(const std::string& url) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(url, "warm");
    if (!builder) return std::nullopt;
    HttpRequest request;
    request.url = url;
    request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
    return request;
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::searchRequest(const ORVRequest& query,
                                                                   const ORVBag& bag,
                                                                   const Uuid& userGuid,
                                                                   unsigned fieldMask) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(bag.searchURL(), "search");
    if (!builder) return std::nullopt;
    _startLocationUpdates();
    builder->forceQueryItemWithName("q", query.queryString);
    if ((query.triggerEvent | 2) == 10) builder->forceQueryItemWithName("qtype", "suggested");
    addQueryAndDebugItems(*builder, query);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    builder->defaultQueryItemWithName("card", "1");
    if (!query.topics.empty()) {
      try {
        builder->defaultHttpHeaderWithName("X-Zelmor-TopTopics",
                                           nlohmann::json(query.topics).dump());
      } catch (const nlohmann::json::exception& error) {
        requestLog().error("Error encoding top topics %@.", std::string(error.what()));
      }
    }
    addCountry(*builder);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    addKeyboard(*builder, query);
    addCalendarUnitsAndClock(*builder);
    addGeoMetadata(*builder);
    if ((fieldMask & kORVFieldMaskNoLocation) == 0) {
      addLocation(*builder);
      addSignature(*builder);
    }
    addManagedMode(*builder);
    addStorefront(*builder);
    addSubscriptions(*builder);
    addUserGuid(*builder, userGuid);
    addUserAgent(*builder, bag.userAgent());
    addScale(*builder, query);
    addGeoEnvironment(*builder, bag);
    addGeoSession(*builder);
    return queryRequest(*builder, bag);
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::zeroKeywordRequest(const ORVRequest& query,
                                                                        const ORVBag& bag,
                                                                        const Uuid& userGuid,
                                                                        unsigned fieldMask) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(bag.searchURL(), "search");
    if (!builder) return std::nullopt;
    builder->forceQueryItemWithName("qtype", "zkw");
    addQueryAndDebugItems(*builder, query);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    addKeyboard(*builder, query);
    addCalendarUnitsAndClock(*builder);
    addCountry(*builder);
    addGeoMetadata(*builder);
    if ((fieldMask & kORVFieldMaskNoLocation) == 0) addLocation(*builder);
    addStorefront(*builder);
    addSubscriptions(*builder);
    addManagedMode(*builder);
    addUserGuid(*builder, userGuid);
    addUserAgent(*builder, bag.userAgent());
    addScale(*builder, query);
    addGeoEnvironment(*builder, bag);
    addGeoSession(*builder);
    return queryRequest(*builder, bag);
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::moreResultsRequest(const ORVRequest& query,
                                                                        const ORVBag& bag,
                                                                        const Uuid& userGuid,
                                                                        unsigned fieldMask) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(bag.moreResultsURL(), "more results");
    if (!builder) return std::nullopt;
    if (!builder->containsQueryItemWithName("latlng")) _startLocationUpdates();
    addQueryAndDebugItems(*builder, query);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    if ((fieldMask & kORVFieldMaskNoLocation) == 0) {
      addLocation(*builder);
      addSignature(*builder);
    }
    addStorefront(*builder);
    addSubscriptions(*builder);
    addManagedMode(*builder);
    addUserGuid(*builder, userGuid);
    addUserAgent(*builder, bag.userAgent());
    addScale(*builder, query);
    return queryRequest(*builder, bag);
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::lookupRequest(const ORVRequest& query,
                                                                   const ORVBag& bag,
                                                                   const Uuid& userGuid) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(bag.searchURL(), "search");
    if (!builder) return std::nullopt;
    _startLocationUpdates();
    builder->forceQueryItemWithName("q", query.queryString);
    addQueryAndDebugItems(*builder, query);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    addKeyboard(*builder, query);
    addCountry(*builder);
    addGeoMetadata(*builder);
    addLocation(*builder);
    addStorefront(*builder);
    addSubscriptions(*builder);
    builder->defaultQueryItemWithName("context", query.applicationBundleIdentifier);
    if (!query.hintDomain.empty()) builder->defaultQueryItemWithName("ldomain", query.hintDomain);
    const char* selection = query.selectionType == kORVLookupSelectionHint       ? "hint"
                            : query.selectionType == kORVLookupSelectionExplicit ? "explicit"
                                                                                 : "default";
    builder->defaultQueryItemWithName("ltype", selection);
    if (auto language = _languageForString(query.queryString)) {
      builder->defaultQueryItemWithName("qlang", *language);
    }
    if (auto language = _languageForString(query.contextText)) {
      builder->defaultQueryItemWithName("lctxlang", *language);
    }
    addManagedMode(*builder);
    addUserGuid(*builder, userGuid);
    addUserAgent(*builder, bag.userAgent());
    addScale(*builder, query);
    addSignature(*builder);
    addGeoSession(*builder);
    return queryRequest(*builder, bag);
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::cardRequest(const ORVRequest& query,
                                                                 const ORVBag& bag,
                                                                 const Uuid& userGuid) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(bag.cardURL(), "card");
    if (!builder) return std::nullopt;
    addQueryAndDebugItems(*builder, query);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    addLocale(*builder);
    addSystemLanguage(*builder);
    addLanguagesHeader(*builder);
    addCountry(*builder);
    addLocation(*builder);
    addStorefront(*builder);
    addGeoMetadata(*builder);
    addUserGuid(*builder, userGuid);
    addUserAgent(*builder, bag.userAgent());
    addScale(*builder, query);
    addSignature(*builder);
    addGeoSession(*builder);
    addGeoEnvironment(*builder, bag);
    addSubscriptions(*builder);
    return queryRequest(*builder, bag);
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::fileDownloadRequest(const std::string& url,
                                                                         const std::string& version,
                                                                         bool includeLatLong) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(url, "download");
    if (!builder) return std::nullopt;
    builder->defaultQueryItemWithName("key", kORVApiKey);
    // The agent the client framework makes for the daemon's identifier and the download agent.
    addUserAgent(*builder, kORVDownloadAgent);
    if (includeLatLong && !_lookupGeoLocationLatLng.empty()) {
      builder->defaultHttpHeaderWithName("X-Zelmor-FuzzedLatLong", _lookupGeoLocationLatLng);
    }
    if (!version.empty()) builder->defaultHttpHeaderWithName("If-None-Match", version);
    return builder->createMutableUrlRequest();
  });
}

std::optional<HttpRequest> ORVNetworkRequestFactory::flusherUploadRequest(
    const std::string& url, Duration timeout, const std::string& digest) {
  return onContextQueue([&]() -> std::optional<HttpRequest> {
    _refreshDeviceOverrides();
    auto builder = builderForEndpoint(url, "feedback");
    if (!builder) return std::nullopt;
    builder->forceQueryItemsFromArray(_debuggingQueryItems);
    builder->defaultQueryItemWithName("key", kORVApiKey);
    addCountry(*builder);
    addLocale(*builder);
    addLanguagesHeader(*builder);
    addUserAgent(*builder, _orvexdUserAgent);
    builder->defaultHttpHeaderWithName("X-Zelmor-Digest", digest);
    builder->forceHttpHeaderWithName("Content-Encoding", "deflate");
    HttpRequest request = builder->createMutableUrlRequest();
    request.method = "POST";
    request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
    request.timeout = timeout;
    return request;
  });
}

}  // namespace orvex
