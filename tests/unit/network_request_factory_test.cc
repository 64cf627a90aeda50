#include "orvexd/network/network_request_factory.h"

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <mutex>
#include <set>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "orvexd/platform/http_session.h"
#include "tests/support/fixed_locale.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Names = std::set<std::string>;

// Positions pushed by the test, as the location service would deliver them.
struct ScriptedLocation final : LocationProvider {
  void startUpdates(UpdateHandler h) override {
    std::lock_guard lock(mutex);
    handler = std::move(h);
    ++starts;
    if (pending) handler(*pending);
  }
  void stopUpdates() override {}
  void deliver(const LocationUpdate& update) {
    std::lock_guard lock(mutex);
    pending = update;
    if (handler) handler(update);
  }
  std::mutex mutex;
  UpdateHandler handler;
  std::optional<LocationUpdate> pending;
  int starts = 0;
};

LocationUpdate wifiFix() {
  LocationUpdate update;
  update.authorized = true;
  update.fix = LocationFix{37.7749, -122.4194, 65, 4, {}};
  return update;
}

struct FixedSignature final : AppWhitelistController {
  std::optional<std::string> whitelistSignature() const override { return "AAECAwQ="; }
};

Names itemNames(const testing::RecordedRequest& request) {
  Names names;
  for (const auto& [name, value] : request.queryItems) names.insert(name);
  return names;
}

std::string item(const testing::RecordedRequest& request, const std::string& name) {
  for (const auto& [itemName, value] : request.queryItems) {
    if (itemName == name) return value;
  }
  return "<absent>";
}

// The headers a recipe sets; the HTTP layer's own (Host, Accept, ...) are left out.
Names recipeHeaders(const testing::RecordedRequest& request) {
  static const Names kHttpLayer = {"Host",           "Accept",       "Accept-Encoding",
                                   "Content-Length", "Content-Type", "Connection",
                                   "Expect"};
  Names names;
  for (const auto& [name, value] : request.headers) {
    if (kHttpLayer.count(name) == 0 && name.rfind("REMOTE_", 0) != 0 &&
        name.rfind("LOCAL_", 0) != 0) {
      names.insert(name);
    }
  }
  return names;
}

class RequestFactoryTest : public ::testing::Test {
 protected:
  RequestFactoryTest() {
    for (const char* path : {"/search", "/more", "/card", "/bag", "/warm", "/file", "/upload"}) {
      for (const char* method : {"GET", "POST"}) {
        server.handle(method, path, [](const testing::RecordedRequest&) {
          return testing::LoopbackHttpServer::Response{200, "{}", {}};
        });
      }
    }
    locale->set(testing::FixedLocale::americanEnglish());
    Assembly& assembly = *test.assembly;
    assembly.userDefaults->setObject(kORVDebugParametersKey, PlistValue("dbg=1&trace=on"));
    assembly.userDefaults->setObject(kORVStorefrontKey, PlistValue("143441-1,29"));
    assembly.userDefaults->setObject(kORVManagedAccountKey, PlistValue(true));
    assembly.appWhitelistController = std::make_shared<FixedSignature>();
    HttpSessionConfiguration configuration;
    configuration.identifier = "factory-test";
    session =
        std::make_shared<HttpSession>(configuration, *test.platform.pool, *test.platform.clock,
                                      (test.directory / "tmp").string());
  }

  void makeFactory() {
    DeviceContextServices services;
    services.locale = std::move(ownedLocale);
    services.language = makeLanguageDetector();
    services.location = std::move(ownedLocation);
    factory = std::make_shared<ORVNetworkRequestFactory>(*test.assembly, std::move(services));
    factory->start();
    test.assembly->requestFactory = factory;
  }

  std::shared_ptr<const ORVBag> makeBag(const std::string& extraJson = "") {
    const std::string json = R"({"search_url": ")" + server.baseUrl() +
                             R"(/search?locale=xx_YY", "more_results_url": ")" + server.baseUrl() +
                             R"(/more", "card_url": ")" + server.baseUrl() +
                             R"(/card", "geo_sources": ["wifi", "gps"], "request_timeout": 7,
                             "send_geo_environment_header": true)" +
                             extraJson + "}";
    return ORVBag::initWithDictionary(BagDictionary::parse(json), "Glance/1");
  }

  // Announces a bag, as the bag controller would, and lets the factory take it in.
  void announce(const std::shared_ptr<const ORVBag>& bag) {
    test.assembly->notificationCenter->post(kORVBagChangeNotification, nullptr, {{"bag", bag}});
    factory->deviceContext().waitForUpdates();
  }

  // Everything set up for a full context: a bag, a location, subscriptions.
  void fullContext() {
    makeFactory();
    bag = makeBag();
    announce(bag);
    location->deliver(wifiFix());
    // The first query starts location updates; the fix then arrives on the context queue.
    ASSERT_TRUE(factory->searchRequest(searchQuery(), *bag, guid, 0));
    factory->deviceContext().subscriptionManagerDidUpdateSubscriptionDictionaries(
        {nlohmann::json{{"type", "premium"}}});
    factory->deviceContext().waitForUpdates();
  }

  ORVRequest searchQuery() {
    ORVRequest query;
    query.kind = ORVRequestKind::kSearch;
    query.queryString = "weather";
    query.triggerEvent = 8;
    query.scale = 2;
    query.keyboardInputMode = "en_US";
    query.queryItems = {{"client_item", "1"}};
    query.topics = {"sports", "news"};
    return query;
  }

  // Sends a request to the loopback server and returns what the server received.
  testing::RecordedRequest send(const std::optional<HttpRequest>& request) {
    EXPECT_TRUE(request);
    if (!request) return {};
    const size_t before = server.requestCount();
    std::promise<void> done;
    session->dataTask(*request, [&](const HttpDataResult&) { done.set_value(); })->resume();
    EXPECT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
    EXPECT_TRUE(server.waitForRequests(before + 1, 20s));
    return server.requests().back();
  }

  testing::TestAssembly test;
  testing::LoopbackHttpServer server;
  std::shared_ptr<HttpSession> session;
  // Handed to the factory when it is made; the test keeps talking to them.
  std::unique_ptr<testing::FixedLocale> ownedLocale = std::make_unique<testing::FixedLocale>();
  std::unique_ptr<ScriptedLocation> ownedLocation = std::make_unique<ScriptedLocation>();
  testing::FixedLocale* locale = ownedLocale.get();
  ScriptedLocation* location = ownedLocation.get();
  std::shared_ptr<ORVNetworkRequestFactory> factory;
  std::shared_ptr<const ORVBag> bag;
  Uuid guid = Uuid::random();
};

TEST_F(RequestFactoryTest, SearchCarriesEveryItemAndHeaderOfItsRecipe) {
  fullContext();
  const testing::RecordedRequest received =
      send(factory->searchRequest(searchQuery(), *bag, guid, 0));

  EXPECT_EQ(received.path, "/search");
  EXPECT_EQ(itemNames(received), (Names{"q", "qtype", "client_item", "dbg", "trace", "key", "card",
                                        "cc", "locale", "esl", "kb_ime", "calendar", "time_zone",
                                        "units", "latlng", "geosrc", "mode", "storefront"}));
  EXPECT_EQ(recipeHeaders(received),
            (Names{"X-Zelmor-TopTopics", "X-Zelmor-Languages", "X-Zelmor-Whitelisted-App-Signature",
                   "X-Zelmor-Subscriptions", "X-Zelmor-UserGuid", "User-Agent", "X-Zelmor-UI-Scale",
                   "X-Zelmor-GeoEnvironment", "X-Zelmor-GeoSession"}));
  // The bag's own "locale" wins over the default one.
  EXPECT_EQ(item(received, "locale"), "xx_YY");
  EXPECT_EQ(item(received, "q"), "weather");
  EXPECT_EQ(item(received, "qtype"), "suggested");
  EXPECT_EQ(item(received, "key"), "osprey4471");
  EXPECT_EQ(item(received, "card"), "1");
  EXPECT_EQ(item(received, "cc"), "US");
  EXPECT_EQ(item(received, "esl"), "en");
  EXPECT_EQ(item(received, "units"), "US");
  EXPECT_EQ(item(received, "calendar"), "gregorian");
  EXPECT_EQ(item(received, "time_zone"), "America/Los_Angeles");
  EXPECT_EQ(item(received, "latlng"), "37.774900,-122.419400,65.000000");
  EXPECT_EQ(item(received, "geosrc"), "wifi");
  EXPECT_EQ(item(received, "mode"), "managed");
  EXPECT_EQ(item(received, "storefront"), "143441-1,29");
  EXPECT_EQ(received.headers.at("X-Zelmor-UserGuid"), guid.upperString());
  EXPECT_EQ(received.headers.at("User-Agent"), "Glance/1");
  EXPECT_EQ(received.headers.at("X-Zelmor-UI-Scale"), "2.0");
  EXPECT_EQ(received.headers.at("X-Zelmor-Languages"), R"(["en-US","fr","de"])");
  EXPECT_EQ(received.headers.at("X-Zelmor-TopTopics"), R"(["sports","news"])");
  EXPECT_EQ(received.headers.at("X-Zelmor-Subscriptions"), R"([{"type":"premium"}])");
  EXPECT_EQ(received.headers.at("X-Zelmor-GeoSession"), factory->geoSessionEntityString());
  // On the wire, items are sorted by name.
  std::vector<std::string> wireOrder;
  for (const auto& [name, value] : received.queryItems) wireOrder.push_back(name);
  EXPECT_TRUE(std::is_sorted(wireOrder.begin(), wireOrder.end()));

  // The time-out comes from the bag.
  EXPECT_EQ(factory->searchRequest(searchQuery(), *bag, guid, 0)->timeout, Duration(7s));
}

TEST_F(RequestFactoryTest, FieldMaskForcedItemsAndEscaping) {
  fullContext();
  ORVRequest query = searchQuery();
  query.queryString = "salt;pepper";
  query.triggerEvent = 1;
  const testing::RecordedRequest masked =
      send(factory->searchRequest(query, *bag, guid, kORVFieldMaskNoLocation));
  EXPECT_EQ(itemNames(masked).count("latlng"), 0u);
  EXPECT_EQ(itemNames(masked).count("geosrc"), 0u);
  EXPECT_EQ(itemNames(masked).count("qtype"), 0u);
  EXPECT_EQ(masked.headers.count("X-Zelmor-Whitelisted-App-Signature"), 0u);
  EXPECT_NE(masked.rawQuery.find("q=salt%3Bpepper"), std::string::npos) << masked.rawQuery;
  EXPECT_EQ(masked.rawQuery.find(';'), std::string::npos);

  // A bag endpoint that carries "q" loses it to the query; its other items stay.
  auto withQuery =
      ORVBag::initWithDictionary(BagDictionary::parse(R"({"search_url": ")" + server.baseUrl() +
                                                      R"(/search?q=from-bag&src=bag"})"),
                                 "Glance/1");
  const testing::RecordedRequest replaced =
      send(factory->searchRequest(query, *withQuery, guid, 0));
  EXPECT_EQ(item(replaced, "q"), "salt;pepper");
  EXPECT_EQ(item(replaced, "src"), "bag");
  // The client's own items are forced too, over the bag's.
  query.queryItems = {{"src", "client"}};
  EXPECT_EQ(item(send(factory->searchRequest(query, *withQuery, guid, 0)), "src"), "client");

  // No endpoint, no request.
  auto empty = ORVBag::initWithDictionary(BagDictionary::parse("{}"), "Glance/1");
  EXPECT_FALSE(factory->searchRequest(query, *empty, guid, 0));
  EXPECT_FALSE(factory->zeroKeywordRequest(query, *empty, guid, 0));
  EXPECT_FALSE(factory->lookupRequest(query, *empty, guid));
  EXPECT_FALSE(factory->cardRequest(query, *empty, guid));
  EXPECT_FALSE(factory->moreResultsRequest(query, *empty, guid, 0));
}

TEST_F(RequestFactoryTest, QueryRecipesOtherThanSearch) {
  fullContext();
  ORVRequest query = searchQuery();

  const testing::RecordedRequest zkw = send(factory->zeroKeywordRequest(query, *bag, guid, 0));
  EXPECT_EQ(itemNames(zkw), (Names{"qtype", "client_item", "dbg", "trace", "key", "locale", "esl",
                                   "kb_ime", "calendar", "time_zone", "units", "cc", "latlng",
                                   "geosrc", "storefront", "mode"}));
  EXPECT_EQ(item(zkw, "qtype"), "zkw");
  EXPECT_EQ(recipeHeaders(zkw), (Names{"X-Zelmor-Languages", "X-Zelmor-Subscriptions",
                                       "X-Zelmor-UserGuid", "User-Agent", "X-Zelmor-UI-Scale",
                                       "X-Zelmor-GeoEnvironment", "X-Zelmor-GeoSession"}));

  const testing::RecordedRequest more = send(factory->moreResultsRequest(query, *bag, guid, 0));
  EXPECT_EQ(more.path, "/more");
  EXPECT_EQ(itemNames(more), (Names{"client_item", "dbg", "trace", "key", "locale", "esl", "latlng",
                                    "geosrc", "storefront", "mode"}));
  EXPECT_EQ(recipeHeaders(more), (Names{"X-Zelmor-Languages", "X-Zelmor-Whitelisted-App-Signature",
                                        "X-Zelmor-Subscriptions", "X-Zelmor-UserGuid", "User-Agent",
                                        "X-Zelmor-UI-Scale"}));

  const testing::RecordedRequest card = send(factory->cardRequest(query, *bag, guid));
  EXPECT_EQ(card.path, "/card");
  EXPECT_EQ(itemNames(card), (Names{"client_item", "dbg", "trace", "key", "locale", "esl", "cc",
                                    "latlng", "geosrc", "storefront"}));
  EXPECT_EQ(recipeHeaders(card),
            (Names{"X-Zelmor-Languages", "X-Zelmor-UserGuid", "User-Agent", "X-Zelmor-UI-Scale",
                   "X-Zelmor-Whitelisted-App-Signature", "X-Zelmor-GeoSession",
                   "X-Zelmor-GeoEnvironment", "X-Zelmor-Subscriptions"}));

  ORVRequest lookup;
  lookup.kind = ORVRequestKind::kLookup;
  lookup.queryString = "La tour Eiffel est le monument le plus visité de Paris";
  lookup.contextText =
      "Der Eiffelturm ist ein Turm aus Stahl in Paris und das Wahrzeichen der Stadt";
  lookup.applicationBundleIdentifier = "org.example.Reader";
  lookup.hintDomain = "wikipedia.org";
  lookup.selectionType = kORVLookupSelectionHint;
  const testing::RecordedRequest looked = send(factory->lookupRequest(lookup, *bag, guid));
  EXPECT_EQ(itemNames(looked),
            (Names{"q", "dbg", "trace", "key", "locale", "esl", "cc", "latlng", "geosrc",
                   "storefront", "context", "ldomain", "ltype", "qlang", "lctxlang", "mode"}));
  EXPECT_EQ(recipeHeaders(looked),
            (Names{"X-Zelmor-Languages", "X-Zelmor-Subscriptions", "X-Zelmor-UserGuid",
                   "User-Agent", "X-Zelmor-Whitelisted-App-Signature", "X-Zelmor-GeoSession"}));
  EXPECT_EQ(item(looked, "ltype"), "hint");
  EXPECT_EQ(item(looked, "qlang"), "fr");
  EXPECT_EQ(item(looked, "lctxlang"), "de");
  EXPECT_EQ(item(looked, "context"), "org.example.Reader");

  // A text in no particular language gives no "qlang"; an explicit selection is "explicit".
  lookup.queryString = "1234 5678";
  lookup.contextText.clear();
  lookup.hintDomain.clear();
  lookup.selectionType = kORVLookupSelectionExplicit;
  const testing::RecordedRequest undetermined = send(factory->lookupRequest(lookup, *bag, guid));
  EXPECT_EQ(itemNames(undetermined).count("qlang"), 0u);
  EXPECT_EQ(itemNames(undetermined).count("lctxlang"), 0u);
  EXPECT_EQ(itemNames(undetermined).count("ldomain"), 0u);
  EXPECT_EQ(item(undetermined, "ltype"), "explicit");
}

TEST_F(RequestFactoryTest, BagWarmDownloadAndUploadRecipes) {
  fullContext();
  const std::string endpoint = server.baseUrl() + "/bag";

  const testing::RecordedRequest fetch =
      send(factory->bagFetchRequest(endpoint, "orvexd/1.0", std::string("42")));
  EXPECT_EQ(itemNames(fetch), (Names{"version", "key", "dbg", "trace", "locale", "esl", "cc"}));
  EXPECT_EQ(recipeHeaders(fetch), (Names{"X-Zelmor-Languages", "User-Agent"}));
  EXPECT_EQ(item(fetch, "locale"), "en_US");
  EXPECT_EQ(item(fetch, "version"), "42");
  EXPECT_EQ(factory->deviceCountryCode(), "US");
  EXPECT_EQ(factory->bagFetchRequest(endpoint, "orvexd/1.0", std::nullopt)->cachePolicy,
            HttpCachePolicy::kReloadIgnoringLocalCacheData);

  const auto cacheKey = factory->bagCacheRequest(endpoint, "orvexd/1.0", std::nullopt);
  const testing::RecordedRequest key = send(cacheKey);
  EXPECT_EQ(itemNames(key), (Names{"dbg", "trace", "locale", "esl", "cc", "agent"}));
  EXPECT_EQ(recipeHeaders(key), Names{});
  EXPECT_EQ(cacheKey->cachePolicy, HttpCachePolicy::kUseProtocolCachePolicy);

  const auto warm = factory->warmRequest(server.baseUrl() + "/warm?w=1");
  EXPECT_EQ(warm->url, server.baseUrl() + "/warm?w=1");
  EXPECT_EQ(warm->cachePolicy, HttpCachePolicy::kReloadIgnoringLocalCacheData);
  EXPECT_FALSE(factory->warmRequest("not a url"));

  const testing::RecordedRequest download =
      send(factory->fileDownloadRequest(server.baseUrl() + "/file", "\"v7\"", true));
  EXPECT_EQ(itemNames(download), Names{"key"});
  EXPECT_EQ(recipeHeaders(download),
            (Names{"User-Agent", "X-Zelmor-FuzzedLatLong", "If-None-Match"}));
  EXPECT_EQ(download.headers.at("User-Agent"), "Glance/1");
  EXPECT_EQ(download.headers.at("If-None-Match"), "\"v7\"");
  EXPECT_EQ(
      recipeHeaders(send(factory->fileDownloadRequest(server.baseUrl() + "/file", "", false))),
      Names{"User-Agent"});

  const auto upload = factory->flusherUploadRequest(server.baseUrl() + "/upload", 30s, "c2hh");
  EXPECT_EQ(upload->method, "POST");
  EXPECT_EQ(upload->timeout, Duration(30s));
  EXPECT_EQ(upload->cachePolicy, HttpCachePolicy::kReloadIgnoringLocalCacheData);
  EXPECT_EQ(upload->headers.at("Content-Encoding"), "deflate");
  EXPECT_EQ(upload->headers.at("X-Zelmor-Digest"), "c2hh");
  EXPECT_EQ(upload->headers.at("User-Agent"), "orvexd/1.0");
  EXPECT_EQ(upload->headers.at("X-Zelmor-Languages"), R"(["en-US","fr","de"])");
  auto uploadItems = OrvexURLRequestBuilder::requestBuilderWithURL(upload->url);
  for (const char* name : {"dbg", "trace", "key", "cc", "locale"}) {
    EXPECT_TRUE(uploadItems->containsQueryItemWithName(name)) << name;
  }
  EXPECT_EQ(upload->headers.size(), 4u);
}

TEST_F(RequestFactoryTest, LocationFollowsTheBagSourcesPermissionAndSearches) {
  makeFactory();
  ORVRequest query = searchQuery();
  // Before any bag, location services are not even set up.
  location->deliver(wifiFix());
  auto gpsOnly = makeBag(R"(, "geo_sources": ["gps"])");
  ASSERT_TRUE(factory->searchRequest(query, *gpsOnly, guid, 0));
  EXPECT_EQ(location->starts, 0);

  // A bag that does not accept Wi-Fi positions: none is sent, and why is.
  announce(gpsOnly);
  ASSERT_TRUE(factory->searchRequest(query, *gpsOnly, guid, 0));
  factory->deviceContext().waitForUpdates();
  EXPECT_EQ(location->starts, 1);
  auto request = factory->searchRequest(query, *gpsOnly, guid, 0);
  EXPECT_EQ(request->url.find("latlng"), std::string::npos);
  EXPECT_EQ(request->headers.at("X-Zelmor-GeoMetadata"), "bagno.wifi");

  // One that does: the position goes out; downloads get it rounded to whole degrees.
  announce(makeBag());
  request = factory->searchRequest(query, *gpsOnly, guid, 0);
  EXPECT_NE(request->url.find("latlng=37.774900,-122.419400,65.000000"), std::string::npos);
  EXPECT_EQ(request->headers.count("X-Zelmor-GeoMetadata"), 0u);
  const std::string url = server.baseUrl() + "/file";
  EXPECT_EQ(factory->fileDownloadRequest(url, "", true)->headers.at("X-Zelmor-FuzzedLatLong"),
            "37.000000,-122.000000");
  // Once the user has searched, downloads may carry the precise position.
  factory->setPerformedSearch();
  factory->deviceContext().waitForUpdates();
  EXPECT_EQ(factory->fileDownloadRequest(url, "", true)->headers.at("X-Zelmor-FuzzedLatLong"),
            "37.774900,-122.419400");

  // The user withdraws permission.
  LocationUpdate refused;
  location->deliver(refused);
  factory->deviceContext().waitForUpdates();
  request = factory->searchRequest(query, *gpsOnly, guid, 0);
  EXPECT_EQ(request->url.find("latlng"), std::string::npos);
  EXPECT_EQ(request->url.find("geosrc"), std::string::npos);
  EXPECT_EQ(request->headers.at("X-Zelmor-GeoMetadata"), "userno");
}

TEST_F(RequestFactoryTest, SystemChangesUpdateTheContextAndAskForAFreshBag) {
  makeFactory();
  auto bag = makeBag();
  std::atomic<int> refreshes{0};
  std::atomic<int> foreignRefreshes{0};
  const NetworkRequestFactory* sender = factory.get();
  auto token = test.assembly->notificationCenter->addObserver(
      kORVBagRefreshRequiredNotification, sender, [&](const Notification&) { ++refreshes; });
  auto any = test.assembly->notificationCenter->addObserver(kORVBagRefreshRequiredNotification,
                                                            nullptr, [&](const Notification& note) {
                                                              if (note.sender != sender)
                                                                ++foreignRefreshes;
                                                            });

  // The context changes that per-client caches empty themselves on, by name.
  std::map<std::string, std::atomic<int>> changes;
  std::vector<ObserverToken> changeTokens;
  for (const char* name : {kORVCountryCodeChangeNotification, kORVTimeZoneChangeNotification,
                           kORVLocaleChangeNotification, kORVDeviceManagementChangeNotification}) {
    changeTokens.push_back(test.assembly->notificationCenter->addObserver(
        name, sender, [&changes, name](const Notification&) { ++changes[name]; }));
    changes[name] = 0;
  }
  factory->deviceContext().waitForUpdates();  // the first reading of the context is no change

  LocaleSnapshot german = testing::FixedLocale::americanEnglish();
  german.localeIdentifier = "de_DE";
  german.measurementSystem = MeasurementSystem::kOther;
  german.hourCyclePattern = "HH:mm";
  german.regionCode = "DE";
  german.preferredLanguages = {"de-DE"};
  german.effectiveSystemLanguage = "de";
  locale->set(german);
  factory->deviceContext().systemLocaleDidChange();
  factory->deviceContext().waitForUpdates();
  test.settle();
  EXPECT_EQ(refreshes, 1);
  EXPECT_EQ(foreignRefreshes, 0);
  EXPECT_EQ(changes[kORVLocaleChangeNotification], 1);
  EXPECT_EQ(changes[kORVCountryCodeChangeNotification], 1);  // the region went from US to DE
  EXPECT_EQ(changes[kORVTimeZoneChangeNotification], 0);

  const std::string endpoint = server.baseUrl() + "/bag";
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(
      factory->bagCacheRequest(endpoint, "orvexd/1.0", std::nullopt)->url);
  EXPECT_EQ(builder->queryItemValue("locale"), "de_DE");
  EXPECT_EQ(builder->queryItemValue("cc"), "DE");
  EXPECT_EQ(builder->queryItemValue("esl"), "de");
  auto search = OrvexURLRequestBuilder::requestBuilderWithURL(
      factory->searchRequest(searchQuery(), *bag, guid, 0)->url);
  EXPECT_FALSE(search->containsQueryItemWithName("units"));
  EXPECT_EQ(search->queryItemValue("24h"), "1");

  // A time-zone change is no part of the bag's key; the country override, which is, wins over
  // the locale's region and is read afresh by every recipe.
  german.timeZoneName = "Europe/Berlin";
  locale->set(german);
  factory->deviceContext().systemTimeZoneDidChange();
  factory->deviceContext().waitForUpdates();
  test.settle();
  EXPECT_EQ(refreshes, 1);
  EXPECT_EQ(OrvexURLRequestBuilder::requestBuilderWithURL(
                factory->searchRequest(searchQuery(), *bag, guid, 0)->url)
                ->queryItemValue("time_zone"),
            "Europe/Berlin");
  test.assembly->userDefaults->setObject(kORVCountryCodeKey, PlistValue("ch"));
  builder = OrvexURLRequestBuilder::requestBuilderWithURL(
      factory->bagCacheRequest(endpoint, "orvexd/1.0", std::nullopt)->url);
  EXPECT_EQ(builder->queryItemValue("cc"), "CH");
  factory->deviceContext().waitForUpdates();
  test.settle();
  EXPECT_EQ(refreshes, 2);
  EXPECT_EQ(changes[kORVTimeZoneChangeNotification], 1);
  EXPECT_EQ(changes[kORVCountryCodeChangeNotification], 2);
  EXPECT_EQ(changes[kORVLocaleChangeNotification], 1);

  // The managed-account mode, read afresh by every recipe, likewise.
  const bool managed = test.assembly->userDefaults->boolForKey(kORVManagedAccountKey);
  test.assembly->userDefaults->setObject(kORVManagedAccountKey, PlistValue(!managed));
  (void)factory->searchRequest(searchQuery(), *bag, guid, 0);
  (void)factory->searchRequest(searchQuery(), *bag, guid, 0);
  factory->deviceContext().waitForUpdates();
  test.settle();
  EXPECT_EQ(changes[kORVDeviceManagementChangeNotification], 1);
  EXPECT_EQ(changes[kORVCountryCodeChangeNotification], 2);

  // A new user GUID starts a new maps session.
  const std::string geoSession = factory->geoSessionEntityString();
  EXPECT_EQ(factory->geoSessionEntityString(), geoSession);
  test.assembly->notificationCenter->post(kORVUserGUIDChangeNotification);
  factory->deviceContext().waitForUpdates();
  EXPECT_NE(factory->geoSessionEntityString(), geoSession);
}

TEST_F(RequestFactoryTest, DebugParametersStopAtTheFirstMalformedPart) {
  std::vector<std::string> logged;
  std::mutex mutex;
  auto observer = addLogObserver([&](const LogRecord& record) {
    std::lock_guard lock(mutex);
    logged.emplace_back(record.message);
  });
  test.assembly->userDefaults->setObject(kORVDebugParametersKey, PlistValue("a=1&bogus&c=3"));
  makeFactory();
  auto bag = makeBag();
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(
      factory->searchRequest(searchQuery(), *bag, guid, 0)->url);
  EXPECT_EQ(builder->queryItemValue("a"), "1");
  EXPECT_FALSE(builder->containsQueryItemWithName("c"));
  EXPECT_FALSE(builder->containsQueryItemWithName("bogus"));
  std::lock_guard lock(mutex);
  EXPECT_NE(std::find(logged.begin(), logged.end(), "processing debug parameters: (a=1&bogus&c=3)"),
            logged.end());
  EXPECT_NE(std::find(logged.begin(), logged.end(), "invalid query components: bogus"),
            logged.end());
}

}  // namespace
}  // namespace orvex
