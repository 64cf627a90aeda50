#include "orvexd/platform/location_provider.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/collector.h"
#include "tests/support/fake_geoclue.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::FakeGeoClue;
using testing::PrivateBus;
using testing::ScopedEnv;
using testing::TempDir;

using Updates = testing::Collector<LocationUpdate>;

constexpr const char* kDesktopId = "com.zelmor.orvexd";
constexpr auto kWatchdog = Updates::kWatchdog;

// The update number `index` (from 0) a collector received; none on the watchdog.
std::optional<LocationUpdate> nth(Updates& updates, std::size_t index) {
  if (!updates.waitForCount(index + 1)) return std::nullopt;
  return updates.values()[index];
}

// The latitude and type of that update's fix; {0, -1} when it has none.
std::pair<double, int> latitudeAndType(Updates& updates, std::size_t index) {
  const auto update = nth(updates, index);
  if (!update || !update->fix) return {0, -1};
  return {update->fix->latitude, update->fix->type};
}

struct SystemBus {
  TempDir dir;
  PrivateBus bus{dir.path()};
  ScopedEnv address{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()};
};

TEST(LocationProviderTest, DeliversGeoClueFixesUntilStopped) {
  SystemBus system;
  FakeGeoClue geoclue(system.bus);
  Updates recorder;
  auto provider = makeGeoClueLocationProvider(kDesktopId);
  provider->startUpdates(recorder.adder());

  // Started, nothing known yet.
  auto first = nth(recorder, 0);
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->authorized);
  EXPECT_FALSE(first->fix);
  FakeGeoClue::State state = geoclue.state();
  EXPECT_EQ(state.desktopId, kDesktopId);
  EXPECT_EQ(state.requestedAccuracyLevel, 8u);
  EXPECT_EQ(state.starts, 1);

  geoclue.publishLocation({48.8566, 2.3522, 35.0, 1700000000, 250000});
  auto update = nth(recorder, 1);
  ASSERT_TRUE(update && update->fix);
  EXPECT_TRUE(update->authorized);
  EXPECT_DOUBLE_EQ(update->fix->latitude, 48.8566);
  EXPECT_DOUBLE_EQ(update->fix->longitude, 2.3522);
  EXPECT_DOUBLE_EQ(update->fix->horizontalAccuracy, 35.0);
  EXPECT_EQ(update->fix->type, 1);
  EXPECT_EQ(update->fix->timestamp.time_since_epoch(),
            std::chrono::seconds(1700000000) + std::chrono::microseconds(250000));

  // The type follows the accuracy; out-of-range and incomplete locations are skipped.
  geoclue.publishLocation({-33.86, 151.2, 1500.0, 1700000100, 0});
  geoclue.publishLocation({123.0, 10.0, 10.0, 1700000200, 0});
  geoclue.publishLocation({10.0, 10.0, -1.0, 1700000200, 0});
  geoclue.publishLocation({10.0, 10.0, 10.0, 1700000200, 0, /*hasTimestamp=*/false});
  geoclue.publishLocation({35.68, 139.69, 25000.0, 1700000300, 0});
  EXPECT_EQ(latitudeAndType(recorder, 2), std::make_pair(-33.86, 4));
  EXPECT_EQ(latitudeAndType(recorder, 3), std::make_pair(35.68, 6));

  // A second start only replaces the handler.
  Updates replacement;
  provider->startUpdates(replacement.adder());
  geoclue.publishLocation({51.5, -0.12, 80.0, 1700000400, 0});
  EXPECT_EQ(latitudeAndType(replacement, 0), std::make_pair(51.5, 1));
  EXPECT_EQ(geoclue.state().clientsCreated, 1);
  EXPECT_EQ(recorder.size(), 4u);

  // Stopping stops the GeoClue client; starting again gets a new one, which already knows
  // the last location.
  provider->stopUpdates();
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 1 && s.activeClients == 0; },
                              kWatchdog));
  Updates again;
  provider->startUpdates(again.adder());
  EXPECT_EQ(latitudeAndType(again, 0), std::make_pair(51.5, 1));
  EXPECT_EQ(geoclue.state().clientsCreated, 2);

  // Destruction stops the client too.
  provider.reset();
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 2 && s.activeClients == 0; },
                              kWatchdog));
  EXPECT_EQ(again.size(), 1u);
}

TEST(LocationProviderTest, MissingOrRefusingServiceGivesOneUnauthorizedUpdate) {
  auto expectOneUnauthorized = [](const char* what) {
    SCOPED_TRACE(what);
    Updates recorder;
    auto provider = makeGeoClueLocationProvider(kDesktopId);
    provider->startUpdates(recorder.adder());
    const auto update = nth(recorder, 0);
    ASSERT_TRUE(update);
    EXPECT_FALSE(update->authorized);
    EXPECT_FALSE(update->fix);
    provider->stopUpdates();  // joins the provider's thread: every update has been delivered
    EXPECT_EQ(recorder.size(), 1u);
  };

  {
    // A bus, but nobody owns the GeoClue name.
    SystemBus system;
    expectOneUnauthorized("no GeoClue service");
  }
  {
    TempDir dir;
    ScopedEnv address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (dir / "no-bus").string());
    expectOneUnauthorized("no system bus");
  }
  {
    SystemBus system;
    FakeGeoClue geoclue(system.bus, {.denyStart = true});
    expectOneUnauthorized("access denied");
    EXPECT_EQ(geoclue.state().activeClients, 0);
    EXPECT_EQ(geoclue.state().desktopId, kDesktopId);
  }
}

TEST(LocationProviderTest, HandlerMayStopOrRestartUpdatesFromItsOwnThread) {
  SystemBus system;
  FakeGeoClue geoclue(system.bus);
  auto provider = makeGeoClueLocationProvider(kDesktopId);
  Updates first;
  Updates replaced;  // never called: updates stop below
  provider->startUpdates([&](const LocationUpdate& update) {
    // Replacing the handler and stopping, both from the provider's thread.
    provider->startUpdates(replaced.adder());
    provider->stopUpdates();
    first.add(update);
  });
  ASSERT_TRUE(first.waitForCount(1));
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 1; }, kWatchdog));
  geoclue.publishLocation({1.0, 2.0, 3.0, 4, 5});
  provider.reset();
  EXPECT_EQ(first.size(), 1u);
  EXPECT_EQ(replaced.size(), 0u);
}

}  // namespace
}  // namespace orvex
