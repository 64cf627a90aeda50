#include "orvexd/network/device_context.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "orvexd/base/log_format.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/uuid.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& requestLog() { return OrvexLogForCategory(kOrvexLogRequest); }

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
  services.locale = makeSystemLocaleProvider(userLocaleFiles(xdgConfigHome));
  services.language = makeLanguageDetector();
  services.location = makeGeoClueLocationProvider(kORVOrvexdIdentifier);
  services.changePaths = SystemChangePaths::standard(xdgConfigHome);
  return services;
}

DeviceContext::DeviceContext(Assembly& assembly, DeviceContextServices services,
                             const void* notificationSender)
    : assembly_(assembly),
      services_(std::move(services)),
      contextAccessQueue_("com.zelmor.orvexd.requestfactory.context", *assembly.workerPool,
                          *assembly.clock),
      notificationSender_(notificationSender) {
  // Reading the locale loads ICU's data, which start-up need not wait for: the first context is
  // read on the queue, where every snapshot is taken after it.
  contextAccessQueue_.async([this] {
    _updateLocaleContexts(false);
    _setupDebuggingQueryItems();
  });
}

DeviceContext::~DeviceContext() {
  // The first context read holds `this`; let it finish. Later jobs hold the context weakly.
  if (!contextAccessQueue_.isCurrent()) (void)contextAccessQueue_.sync([] {});
  changeMonitor_.reset();
  observers_.clear();
  if (services_.location) services_.location->stopUpdates();
}

void DeviceContext::start() {
  std::weak_ptr<DeviceContext> weak = weak_from_this();
  NotificationCenter& center = *assembly_.notificationCenter;
  observers_.push_back(
      center.addObserver(kORVBagChangeNotification, nullptr, [weak](const Notification& note) {
        const auto* bag = note.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
        if (bag == nullptr || !*bag) return;
        if (auto self = weak.lock()) {
          self->contextAccessQueue_.async([weak, bag = *bag] {
            if (auto self = weak.lock()) self->_didGetBag(bag);
          });
        }
      }));
  observers_.push_back(
      center.addObserver(kORVUserGUIDChangeNotification, nullptr, [weak](const Notification&) {
        if (auto self = weak.lock()) {
          self->contextAccessQueue_.async([weak] {
            if (auto self = weak.lock()) self->geoSessionEntityString_.reset();
          });
        }
      }));
  if (services_.changePaths) {
    changeMonitor_ = makeSystemChangeMonitor(*assembly_.workerPool, *services_.changePaths,
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

void DeviceContext::stop() {
  changeMonitor_.reset();
  observers_.clear();
  const auto silence = [this] { notificationSender_ = nullptr; };
  if (contextAccessQueue_.isCurrent()) {
    silence();
  } else {
    (void)contextAccessQueue_.sync(silence);
  }
}

template <typename F>
auto DeviceContext::onContextQueue(F job) -> decltype(job()) {
  if (contextAccessQueue_.isCurrent()) return job();
  auto result = contextAccessQueue_.syncResult(std::move(job));
  if (!result) return {};
  return std::move(*result);
}

void DeviceContext::waitForUpdates() {
  (void)contextAccessQueue_.sync([] {});
}

// ---------------------------------------------------------------------------------------------
// Snapshots

DeviceContextSnapshot DeviceContext::snapshot(bool startLocationUpdates) {
  return onContextQueue([&] {
    _refreshDeviceOverrides();
    if (startLocationUpdates) _startLocationUpdates();
    DeviceContextSnapshot context;
    context.localeIdentifier = localeIdentifier_;
    context.calendarIdentifier = localeCalendarIdentifier_;
    context.measurementSystem = localeMeasurementSystem_;
    context.is24hDateFormat = is24hDateFormat_;
    context.timeZoneName = localTimeZoneName_;
    context.effectiveSystemLanguage = effectiveSystemLanguage_;
    context.preferredLanguages = preferredLanguages_;
    context.countryCode = geoDeviceCountryCode_;
    context.locationLatLng = geoLocationLatLng_;
    context.locationSource = geoLocationSource_;
    context.downloadLatLng = lookupGeoLocationLatLng_;
    context.geoMetadata = geoClientMetadata_;
    context.storefront = storeFrontIdentifier_;
    context.subscriptions = subscriptionInfo_;
    context.managedAccount = isManagedAccount_;
    context.debugItems = debuggingQueryItems_;
    context.geoSession = _geoSessionEntity();
    return context;
  });
}

std::string DeviceContext::countryCode() {
  return onContextQueue([this] {
    _refreshDeviceOverrides();
    return geoDeviceCountryCode_;
  });
}

std::string DeviceContext::geoSessionEntityString() {
  return onContextQueue([this] { return _geoSessionEntity(); });
}

std::string DeviceContext::_geoSessionEntity() {
  contextAccessQueue_.assertCurrent("_geoSessionEntity");
  if (!geoSessionEntityString_) geoSessionEntityString_ = Uuid::random().upperString();
  return *geoSessionEntityString_;
}

// ---------------------------------------------------------------------------------------------
// Context updates

void DeviceContext::_updateLocaleContexts(bool notify) {
  contextAccessQueue_.assertCurrent("_updateLocaleContexts");
  const LocaleSnapshot locale = services_.locale->currentLocale();
  localeIdentifier_ = locale.localeIdentifier;
  localeCalendarIdentifier_ = locale.calendarIdentifier;
  localeMeasurementSystem_ = measurementSystemName(locale.measurementSystem);

  std::vector<std::string> languages = locale.preferredLanguages;
  if (languages.size() > 3) languages.resize(3);
  try {
    preferredLanguages_ = nlohmann::json(languages).dump();
  } catch (const nlohmann::json::exception& error) {
    requestLog().error("Error encoding preferred languages %@.", std::string(error.what()));
  }

  effectiveSystemLanguage_ = locale.effectiveSystemLanguage;
  localTimeZoneName_ = locale.timeZoneName;
  localeRegionCode_ = locale.regionCode;
  if (locale.hourCyclePattern.find("HH") != std::string::npos) {
    is24hDateFormat_ = "1";
  } else {
    is24hDateFormat_.reset();
  }
  _updateDeviceOverrides();
  if (notify) _notifyBagRefreshRequired();
}

void DeviceContext::_updateTimeZone() {
  contextAccessQueue_.assertCurrent("_updateTimeZone");
  localTimeZoneName_ = services_.locale->currentLocale().timeZoneName;
}

// Values the device's owner may set in the defaults store, each replacing what the system says.
bool DeviceContext::_updateDeviceOverrides() {
  contextAccessQueue_.assertCurrent("_updateDeviceOverrides");
  DefaultsStore& defaults = *assembly_.userDefaults;
  const std::string previousCountry = geoDeviceCountryCode_;
  const bool previouslyManaged = isManagedAccount_;
  if (auto country = defaults.stringForKey(kORVCountryCodeKey); country && !country->empty()) {
    geoDeviceCountryCode_ = upper(*country);
  } else {
    geoDeviceCountryCode_ = localeRegionCode_;
  }
  if (auto storefront = defaults.stringForKey(kORVStorefrontKey);
      storefront && !storefront->empty()) {
    storeFrontIdentifier_ = *storefront;
  } else {
    storeFrontIdentifier_ = storeFrontFromSubscriptions_;
  }
  isManagedAccount_ = defaults.boolForKey(kORVManagedAccountKey);
  // The first reading sets the context up; only later ones are changes.
  if (deviceContextKnown_) {
    if (geoDeviceCountryCode_ != previousCountry) {
      _postContextChange(kORVCountryCodeChangeNotification);
    }
    if (isManagedAccount_ != previouslyManaged) {
      _postContextChange(kORVDeviceManagementChangeNotification);
    }
  }
  deviceContextKnown_ = true;
  return geoDeviceCountryCode_ != previousCountry;
}

// The overrides may be changed at any time; each snapshot reads them afresh, and a new country
// (which is part of the bag's key) asks for a fresh bag.
void DeviceContext::_refreshDeviceOverrides() {
  if (_updateDeviceOverrides()) _notifyBagRefreshRequired();
}

void DeviceContext::_setupDebuggingQueryItems() {
  contextAccessQueue_.assertCurrent("_setupDebuggingQueryItems");
  debuggingQueryItems_.clear();
  const std::string parameters =
      assembly_.userDefaults->stringForKey(kORVDebugParametersKey).value_or("");
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
    debuggingQueryItems_.push_back(URLQueryItem{part.substr(0, equals), part.substr(equals + 1)});
    start = end + 1;
  }
}

void DeviceContext::systemLocaleDidChange() {
  contextAccessQueue_.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->_updateLocaleContexts(true);
    self->_postContextChange(kORVLocaleChangeNotification);
  });
}

void DeviceContext::systemTimeZoneDidChange() {
  contextAccessQueue_.async([weak = weak_from_this()] {
    // The time zone is no part of the bag's key: nothing to refresh.
    auto self = weak.lock();
    if (!self) return;
    self->_updateTimeZone();
    self->_postContextChange(kORVTimeZoneChangeNotification);
  });
}

void DeviceContext::_postContextChange(const char* name) {
  // Posted from the queue, asynchronously, so that observers never run inside a context update.
  // The sender is the request factory as the Assembly holds it, which is what observers compare
  // with.
  contextAccessQueue_.async([weak = weak_from_this(), name] {
    auto self = weak.lock();
    if (!self || self->notificationSender_ == nullptr) return;
    self->assembly_.notificationCenter->post(name, self->notificationSender_);
  });
}

void DeviceContext::_notifyBagRefreshRequired() {
  _postContextChange(kORVBagRefreshRequiredNotification);
}

void DeviceContext::subscriptionManagerDidUpdateSubscriptionDictionaries(
    const std::vector<nlohmann::json>& subscriptions) {
  std::optional<std::string> header;
  if (!subscriptions.empty()) {
    try {
      header = nlohmann::json(subscriptions).dump();
    } catch (const nlohmann::json::exception& error) {
      requestLog().error("Error encoding subscriptions %@.", std::string(error.what()));
    }
  }
  contextAccessQueue_.async([weak = weak_from_this(), header = std::move(header)] {
    if (auto self = weak.lock()) self->subscriptionInfo_ = header;
  });
}

void DeviceContext::subscriptionManagerDidUpdateStorefrontIdentifier(
    const std::string& storefront) {
  contextAccessQueue_.async([weak = weak_from_this(), storefront] {
    auto self = weak.lock();
    if (!self) return;
    self->storeFrontFromSubscriptions_ = storefront;
    self->_updateDeviceOverrides();
  });
}

// ---------------------------------------------------------------------------------------------
// Bag and location

void DeviceContext::_didGetBag(const std::shared_ptr<const ORVBag>& bag) {
  contextAccessQueue_.assertCurrent("_didGetBag");
  supportedGeoLocationSources_ = bag->supportedGeoLocationSources();
  // Location services are set up once, after the first bag says which sources it accepts;
  // updates start with the first request that needs them.
  locationServicesSetUp_ = true;
  // A held fix is judged again against the sources the new bag accepts.
  if (locationAuthorized_ && geoLocation_) _setLocationIfAllowedByBag(*geoLocation_);
  _updateHashtagImagesVisibility(*bag);
}

void DeviceContext::_updateHashtagImagesVisibility(const ORVBag& bag) {
  const BagDictionary& value = bag.valueForKey(kHashtagImagesBagKey);
  const bool visible = value.is_boolean() && value.get<bool>();
  if (hashtagImagesVisible_ == visible) return;
  hashtagImagesVisible_ = visible;
  assembly_.userDefaults->setObject(kHashtagImagesVisibleKey, PlistValue(visible));
  assembly_.userDefaults->synchronize();
}

void DeviceContext::_startLocationUpdates() {
  contextAccessQueue_.assertCurrent("_startLocationUpdates");
  if (!locationServicesSetUp_ || locationUpdatesStarted_ || !services_.location) return;
  locationUpdatesStarted_ = true;
  services_.location->startUpdates([weak = weak_from_this()](const LocationUpdate& update) {
    auto self = weak.lock();
    if (!self) return;
    self->contextAccessQueue_.async([weak, update] {
      if (auto self = weak.lock()) self->_locationDidUpdate(update);
    });
  });
}

void DeviceContext::_locationDidUpdate(const LocationUpdate& update) {
  contextAccessQueue_.assertCurrent("_locationDidUpdate");
  locationAuthorized_ = update.authorized;
  if (!update.authorized) {
    geoLocation_.reset();
    _dropLocation("userno");
    return;
  }
  if (!update.fix) return;
  geoLocation_ = update.fix;
  _setLocationIfAllowedByBag(*update.fix);
}

void DeviceContext::_setLocationIfAllowedByBag(const LocationFix& fix) {
  contextAccessQueue_.assertCurrent("_setLocationIfAllowedByBag");
  const std::string source = _locationSourceForLocation(fix);
  if (supportedGeoLocationSources_.count(source) == 0) {
    _dropLocation(formatLog("%@.%@", "bagno", source));
    return;
  }
  _setLocation(fix);
}

void DeviceContext::_setLocation(const LocationFix& fix) {
  contextAccessQueue_.assertCurrent("_setLocation");
  geoLocationLatLng_ = printfString("%f,%f", fix.latitude, fix.longitude);
  char accuracy[64];
  std::snprintf(accuracy, sizeof accuracy, ",%f", fix.horizontalAccuracy);
  geoLocationLatLng_ += accuracy;
  geoLocationSource_ = _locationSourceForLocation(fix);
  geoClientMetadata_.reset();
  // Downloads get a position rounded to whole degrees until the user has searched.
  if (lookupGeoLocationLatLng_.empty()) {
    lookupGeoLocationLatLng_ =
        printfString("%f,%f", std::trunc(fix.latitude), std::trunc(fix.longitude));
  }
}

// Requests then carry no position; the reason why is sent instead as the geo metadata, so the
// back-end can tell a refused user from a source it does not accept.
void DeviceContext::_dropLocation(const std::string& reason) {
  contextAccessQueue_.assertCurrent("_dropLocation");
  requestLog().debug("location not sent: %@", reason);
  geoLocationLatLng_.clear();
  geoLocationSource_.clear();
  geoClientMetadata_ = reason;
}

void DeviceContext::setPerformedSearch() {
  // Once per search, on the way to sending it: in place when the queue is idle.
  contextAccessQueue_.runOrAsync([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self || !self->geoLocation_ || self->geoLocationLatLng_.empty()) return;
    self->lookupGeoLocationLatLng_ =
        printfString("%f,%f", self->geoLocation_->latitude, self->geoLocation_->longitude);
  });
}

}  // namespace orvex
