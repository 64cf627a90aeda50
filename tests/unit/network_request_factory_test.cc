#include "orvexd/network/network_request_factory.h"

#include <gtest/gtest.h>

#include <array>
#include <mutex>

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "tests/support/fixed_locale.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

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
  return LocationUpdate{.authorized = true, .fix = LocationFix{37.7749, -122.4194, 65, 4, {}}};
}

struct FixedSignature final : AppWhitelistController {
  std::optional<std::string> whitelistSignature() const override { return "AAECAwQ="; }
};

// A built request read back; "-" stands for an item or header it does not carry.
struct Built {
  explicit Built(const std::optional<HttpRequest>& built)
      : request(built.value_or(HttpRequest{})),
        parsed(OrvexURLRequestBuilder::requestBuilderWithURL(request.url)) {}
  Strings items(std::initializer_list<const char*> names) const {
    Strings values;
    for (const char* name : names) {
      values.push_back(parsed ? parsed->queryItemValue(name).value_or("-") : "<no request>");
    }
    return values;
  }
  std::string item(const char* name) const { return items({name}).front(); }
  std::string header(const std::string& name) const {
    return request.headers.count(name) ? request.headers.at(name) : "-";
  }
  HttpRequest request;
  std::optional<OrvexURLRequestBuilder> parsed;
};

class RequestFactoryTest : public ::testing::Test {
 protected:
  void makeFactory(const char* debugParameters = "dbg=1&trace=on") {
    Assembly& assembly = *test.assembly;
    assembly.userDefaults->setObject(kORVDebugParametersKey, PlistValue(debugParameters));
    assembly.userDefaults->setObject(kORVStorefrontKey, PlistValue("143441-1,29"));
    assembly.userDefaults->setObject(kORVManagedAccountKey, PlistValue(true));
    assembly.appWhitelistController = std::make_shared<FixedSignature>();
    DeviceContextServices services;
    services.locale = std::move(ownedLocale);
    services.language = makeLanguageDetector();
    services.location = std::move(ownedLocation);
    factory = std::make_shared<ORVNetworkRequestFactory>(*test.assembly, std::move(services));
    factory->start();
    test.assembly->requestFactory = factory;
  }
  void settle() { factory->deviceContext().waitForUpdates(); }

  static std::shared_ptr<const ORVBag> makeBag(const std::string& base = "https://s.example",
                                               Strings sources = {"wifi", "gps"}) {
    return ORVBag::initWithDictionary({{"search_url", base + "/search?locale=xx_YY"},
                                       {"more_results_url", base + "/more"},
                                       {"card_url", base + "/card"},
                                       {"geo_sources", sources},
                                       {"request_timeout", 7},
                                       {"send_geo_environment_header", true}},
                                      "Glance/1");
  }
  // Announces a bag, as the bag controller would, and lets the context take it in.
  void announce(const std::shared_ptr<const ORVBag>& announced) {
    test.assembly->notificationCenter->post(kORVBagChangeNotification, nullptr,
                                            {{"bag", announced}});
    settle();
  }
  // A bag, a position and subscriptions: every item and header has something to send.
  void fullContext() {
    makeFactory();
    bag = makeBag();
    announce(bag);
    location->deliver(wifiFix());
    // The first query starts location updates; the fix then arrives on the context queue.
    ASSERT_TRUE(factory->searchRequest(searchQuery(), *bag, guid, 0));
    factory->deviceContext().subscriptionManagerDidUpdateSubscriptionDictionaries(
        {nlohmann::json{{"type", "premium"}}});
    settle();
  }
  static ORVRequest searchQuery() {
    ORVRequest query;
    query.queryString = "weather";
    query.triggerEvent = 8;
    return query;
  }

  testing::TestAssembly test;
  // Handed to the factory when it is made; the test keeps talking to them.
  std::unique_ptr<testing::FixedLocale> ownedLocale = std::make_unique<testing::FixedLocale>();
  std::unique_ptr<ScriptedLocation> ownedLocation = std::make_unique<ScriptedLocation>();
  testing::FixedLocale* locale = ownedLocale.get();
  ScriptedLocation* location = ownedLocation.get();
  std::shared_ptr<ORVNetworkRequestFactory> factory;
  std::shared_ptr<const ORVBag> bag;
  Uuid guid = Uuid::random();
};

// A search with the whole device context: the query escaped (what the escapes look like on the
// wire: the builder's and the HTTP session's tests), and the context in items and headers.
TEST_F(RequestFactoryTest, SearchCarriesTheDeviceContextInItemsAndHeaders) {
  fullContext();
  ORVRequest query = searchQuery();
  query.queryString = "salt;pepper";
  const Built search(factory->searchRequest(query, *bag, guid, 0));
  EXPECT_NE(search.request.url.find("q=salt%3Bpepper"), std::string::npos) << search.request.url;
  EXPECT_EQ(search.items({"q", "locale", "cc", "latlng", "mode"}),
            (Strings{"salt;pepper", "xx_YY", "US", "37.774900,-122.419400,65.000000", "managed"}));
  EXPECT_EQ(search.header("X-Zelmor-UserGuid"), guid.upperString());
  EXPECT_EQ(search.header("X-Zelmor-Languages"), R"(["en-US","fr","de"])");
  EXPECT_EQ(search.header("X-Zelmor-Subscriptions"), R"([{"type":"premium"}])");
  EXPECT_EQ(search.header("X-Zelmor-Whitelisted-App-Signature"), "AAECAwQ=");
}

TEST_F(RequestFactoryTest, ForcedItemsWinDefaultItemsYieldAndMissingEndpointsGiveNothing) {
  fullContext();
  auto carrying = ORVBag::initWithDictionary(
      {{"search_url", "https://s.example/search?q=bag&src=bag&cc=XX&key=k"},
       {"more_results_url", "https://s.example/more?latlng=1,2"}},
      "Glance/2");
  ORVRequest query = searchQuery();
  query.queryItems = {{"src", "client"}, {"dbg", "client"}};
  // Forced, in order: the query over the endpoint's "q", the client's items over the endpoint's,
  // the debug items over the client's. The endpoint's own items win over every default one.
  const Built search(factory->searchRequest(query, *carrying, guid, 0));
  EXPECT_EQ(search.items({"q", "src", "dbg", "cc", "key", "qtype"}),
            (Strings{"weather", "client", "1", "XX", "k", "suggested"}));
  EXPECT_EQ(search.header("User-Agent"), "Glance/2");
  EXPECT_FALSE(search.request.timeout);  // this bag sets none; the full one does
  EXPECT_EQ(factory->searchRequest(query, *bag, guid, 0)->timeout, Duration(7s));
  query.queryItems = {{"q", "client"}};
  EXPECT_EQ(Built(factory->searchRequest(query, *carrying, guid, 0)).item("q"), "client");
  EXPECT_EQ(Built(factory->moreResultsRequest(query, *carrying, guid, 0)).item("latlng"), "1,2");

  // Only a suggestion's trigger events make a "suggested" search; the field mask drops the
  // position and the signature, and nothing else.
  query.triggerEvent = 1;
  const Built masked(factory->searchRequest(query, *bag, guid, kORVFieldMaskNoLocation));
  EXPECT_EQ(masked.items({"qtype", "latlng", "geosrc", "mode"}),
            (Strings{"-", "-", "-", "managed"}));
  EXPECT_EQ(masked.header("X-Zelmor-Whitelisted-App-Signature"), "-");
  EXPECT_EQ(Built(factory->zeroKeywordRequest(query, *bag, guid, 0)).item("qtype"), "zkw");

  // A lookup names the languages of its text and context, when they have one.
  ORVRequest lookup;
  lookup.queryString = "La tour Eiffel est le monument le plus visité de Paris";
  lookup.contextText = "Der Eiffelturm ist ein Turm aus Stahl in Paris, das Wahrzeichen der Stadt";
  lookup.selectionType = kORVLookupSelectionHint;
  EXPECT_EQ(Built(factory->lookupRequest(lookup, *bag, guid)).items({"qlang", "lctxlang", "ltype"}),
            (Strings{"fr", "de", "hint"}));
  lookup.queryString = "1234 5678";
  lookup.contextText.clear();
  EXPECT_EQ(Built(factory->lookupRequest(lookup, *bag, guid)).items({"qlang", "lctxlang"}),
            (Strings{"-", "-"}));

  auto empty = ORVBag::initWithDictionary(BagDictionary::object(), "Glance/1");
  EXPECT_FALSE(factory->searchRequest(query, *empty, guid, 0));
  EXPECT_FALSE(factory->cardRequest(query, *empty, guid));
  EXPECT_FALSE(factory->moreResultsRequest(query, *empty, guid, 0));
  testing::LogCapture logs;
  EXPECT_FALSE(factory->bagFetchRequest("not a url", "orvexd/1.0", std::nullopt));
  EXPECT_FALSE(factory->warmRequest("not a url"));
  EXPECT_TRUE(logs.contains("invalid bag URL not a url"));
  // The warm-up request is the URL exactly as the bag gives it.
  EXPECT_EQ(factory->warmRequest("https://w.example/w?a=1;2")->url, "https://w.example/w?a=1;2");
}

TEST_F(RequestFactoryTest, LocationFollowsTheBagSourcesPermissionAndSearches) {
  makeFactory();
  const ORVRequest query = searchQuery();
  const auto search = [&] { return Built(factory->searchRequest(query, *bag, guid, 0)); };
  const auto fuzzed = [&](bool include) {
    return Built(factory->fileDownloadRequest("https://f.example/f", "", include))
        .header("X-Zelmor-FuzzedLatLong");
  };
  // Before any bag, location services are not even set up.
  location->deliver(wifiFix());
  bag = makeBag("https://s.example", {"gps"});
  ASSERT_TRUE(factory->searchRequest(query, *bag, guid, 0));
  EXPECT_EQ(location->starts, 0);

  // A bag that does not accept Wi-Fi positions: none is sent, and why is.
  announce(bag);
  (void)search();
  settle();
  EXPECT_EQ(location->starts, 1);
  EXPECT_EQ(search().item("latlng"), "-");
  EXPECT_EQ(search().header("X-Zelmor-GeoMetadata"), "bagno.wifi");

  // One that does: the position goes out; downloads get it rounded to whole degrees.
  announce(makeBag());
  EXPECT_EQ(search().item("latlng"), "37.774900,-122.419400,65.000000");
  EXPECT_EQ(search().header("X-Zelmor-GeoMetadata"), "-");
  EXPECT_EQ(fuzzed(true), "37.000000,-122.000000");
  EXPECT_EQ(fuzzed(false), "-");
  // Once the user has searched, downloads may carry the precise position.
  factory->setPerformedSearch();
  settle();
  EXPECT_EQ(fuzzed(true), "37.774900,-122.419400");

  // The user withdraws permission.
  location->deliver(LocationUpdate{});
  settle();
  EXPECT_EQ(search().items({"latlng", "geosrc"}), (Strings{"-", "-"}));
  EXPECT_EQ(search().header("X-Zelmor-GeoMetadata"), "userno");
}

TEST_F(RequestFactoryTest, SystemChangesUpdateTheContextAndAskForAFreshBag) {
  makeFactory();
  bag = makeBag();
  // Posts of the bag refresh and of the context changes per-client caches empty themselves on;
  // one made in anybody's name but the factory's counts a thousand.
  const char* const kNames[] = {kORVBagRefreshRequiredNotification, kORVLocaleChangeNotification,
                                kORVCountryCodeChangeNotification, kORVTimeZoneChangeNotification,
                                kORVDeviceManagementChangeNotification};
  std::array<std::atomic<int>, 5> posted{};
  std::vector<ObserverToken> tokens;
  for (size_t i = 0; i < posted.size(); ++i) {
    tokens.push_back(test.assembly->notificationCenter->addObserver(
        kNames[i], nullptr, [&, i, sender = factory.get()](const Notification& note) {
          posted[i] += note.sender == static_cast<const NetworkRequestFactory*>(sender) ? 1 : 1000;
        }));
  }
  const auto counts = [&] {
    settle();
    test.settle();
    std::vector<int> values;
    for (const auto& count : posted) values.push_back(count);
    return values;
  };
  const auto bagKey = [&] { return Built(factory->bagCacheRequest("https://b.example", "", {})); };
  using Counts = std::vector<int>;               // refresh, locale, country, time zone, management
  EXPECT_EQ(counts(), (Counts{0, 0, 0, 0, 0}));  // the first reading is no change

  LocaleSnapshot german = testing::FixedLocale::americanEnglish();
  german.localeIdentifier = "de_DE";
  german.measurementSystem = MeasurementSystem::kOther;
  german.hourCyclePattern = "HH:mm";
  german.regionCode = "DE";
  locale->set(german);
  factory->deviceContext().systemLocaleDidChange();
  EXPECT_EQ(counts(), (Counts{1, 1, 1, 0, 0}));
  EXPECT_EQ(bagKey().items({"locale", "cc"}), (Strings{"de_DE", "DE"}));
  EXPECT_EQ(factory->deviceCountryCode(), "DE");
  EXPECT_EQ(Built(factory->searchRequest(searchQuery(), *bag, guid, 0)).items({"units", "24h"}),
            (Strings{"-", "1"}));

  // A time-zone change is no part of the bag's key; the country override, which is, wins over
  // the locale's region and is read afresh by every request.
  german.timeZoneName = "Europe/Berlin";
  locale->set(german);
  factory->deviceContext().systemTimeZoneDidChange();
  EXPECT_EQ(counts(), (Counts{1, 1, 1, 1, 0}));
  EXPECT_EQ(Built(factory->searchRequest(searchQuery(), *bag, guid, 0)).item("time_zone"),
            "Europe/Berlin");
  test.assembly->userDefaults->setObject(kORVCountryCodeKey, PlistValue("ch"));
  EXPECT_EQ(bagKey().item("cc"), "CH");
  EXPECT_EQ(counts(), (Counts{2, 1, 2, 1, 0}));

  // The managed mode likewise, once however many requests read it.
  test.assembly->userDefaults->setObject(kORVManagedAccountKey, PlistValue(false));
  (void)factory->searchRequest(searchQuery(), *bag, guid, 0);
  (void)factory->searchRequest(searchQuery(), *bag, guid, 0);
  EXPECT_EQ(counts(), (Counts{2, 1, 2, 1, 1}));

  // A new user GUID starts a new maps session.
  const std::string geoSession = factory->geoSessionEntityString();
  test.assembly->notificationCenter->post(kORVUserGUIDChangeNotification);
  settle();
  EXPECT_NE(factory->geoSessionEntityString(), geoSession);
}

TEST_F(RequestFactoryTest, DebugParametersStopAtTheFirstMalformedPart) {
  testing::LogCapture logs;
  makeFactory("a=1&bogus&c=3");
  EXPECT_EQ(
      Built(factory->searchRequest(searchQuery(), *makeBag(), guid, 0)).items({"a", "bogus", "c"}),
      (Strings{"1", "-", "-"}));
  EXPECT_TRUE(logs.contains("processing debug parameters: (a=1&bogus&c=3)"));
  EXPECT_TRUE(logs.contains("invalid query components: bogus"));
}

}  // namespace
}  // namespace orvex
