// What building one request costs with the full device context: locale, languages, country,
// location, store front, subscriptions, managed mode, debug items and the app signature.
//
// Usage: orvex_bench_request_factory [Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {
namespace {

struct StaticLocation final : LocationProvider {
  void startUpdates(UpdateHandler handler) override {
    LocationUpdate update;
    update.authorized = true;
    update.fix = LocationFix{48.8584, 2.2945, 20, 1, {}};
    handler(update);
  }
  void stopUpdates() override {}
};

struct StaticSignature final : AppWhitelistController {
  std::optional<std::string> whitelistSignature() const override {
    return "AAECAwQFBgcICQoLDA0ODw==";
  }
};

class FactoryFixture {
 public:
  FactoryFixture() {
    setLogThreshold(LogLevel::kError);
    directory_ =
        std::filesystem::temp_directory_path() / ("orvex-bench-" + std::to_string(::getpid()));
    DirectoryEnvironment directories;
    directories.home = directory_.string();
    directories.xdgCacheHome = (directory_ / "cache").string();
    directories.xdgConfigHome = (directory_ / "config").string();
    directories.tmpdir = directory_.string();
    std::filesystem::create_directories(directory_);

    assembly = std::make_shared<Assembly>(std::make_shared<WorkerPool>(4),
                                          std::make_shared<SystemClock>());
    assembly->fileManager = std::make_shared<FileManager>(directories);
    assembly->userDefaults = std::make_shared<DefaultsStore>(
        assembly->fileManager, DefaultsStore::standardPath(*assembly->fileManager));
    assembly->notificationCenter = std::make_shared<NotificationCenter>();
    assembly->appWhitelistController = std::make_shared<StaticSignature>();
    assembly->userDefaults->setObject(kORVDebugParametersKey, PlistValue("exp=a&trace=1"));
    assembly->userDefaults->setObject(kORVStorefrontKey, PlistValue("143442-3,29"));
    assembly->userDefaults->setObject(kORVManagedAccountKey, PlistValue(true));

    DeviceContextServices services;
    services.locale = makeSystemLocaleProvider();
    services.language = makeLanguageDetector();
    services.location = std::make_unique<StaticLocation>();
    factory = std::make_shared<ORVNetworkRequestFactory>(*assembly, std::move(services));
    factory->start();

    bag = ORVBag::initWithDictionary(BagDictionary::parse(R"({
      "search_url": "https://search.zelmor.example/v2/search?src=bag",
      "geo_sources": ["gps", "wifi"], "request_timeout": 5,
      "send_geo_environment_header": true})"),
                                     "Glance/1");
    assembly->notificationCenter->post(kORVBagChangeNotification, nullptr, {{"bag", bag}});
    factory->deviceContext().subscriptionManagerDidUpdateSubscriptionDictionaries(
        {nlohmann::json{{"type", "premium"}, {"expires", 86400}}});
    query.queryString = "weather in paris";
    query.triggerEvent = 8;
    query.scale = 3;
    query.keyboardInputMode = "fr_FR";
    query.queryItems = {{"client", "glance"}};
    query.topics = {"travel", "weather"};
    // The first search starts location updates; the position is in from the next one on.
    factory->searchRequest(query, *bag, guid, 0);
    factory->deviceContext().waitForUpdates();
  }

  ~FactoryFixture() {
    factory.reset();
    assembly.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::filesystem::path directory_;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<ORVNetworkRequestFactory> factory;
  std::shared_ptr<const ORVBag> bag;
  ORVRequest query;
  Uuid guid = Uuid::random();
};

FactoryFixture& fixture() {
  static FactoryFixture instance;
  return instance;
}

void BM_SearchRequest(benchmark::State& state) {
  FactoryFixture& f = fixture();
  size_t bytes = 0;
  for (auto _ : state) {
    auto request = f.factory->searchRequest(f.query, *f.bag, f.guid, 0);
    bytes = request->url.size();
    benchmark::DoNotOptimize(request);
  }
  state.counters["url_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_SearchRequest)->Unit(benchmark::kMicrosecond);

void BM_LookupRequest(benchmark::State& state) {
  FactoryFixture& f = fixture();
  ORVRequest lookup = f.query;
  lookup.kind = ORVRequestKind::kLookup;
  lookup.queryString = "la tour Eiffel";
  lookup.contextText = "La tour Eiffel est une tour de fer puddlé de 330 m de hauteur";
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.factory->lookupRequest(lookup, *f.bag, f.guid));
  }
}
BENCHMARK(BM_LookupRequest)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orvex

BENCHMARK_MAIN();
