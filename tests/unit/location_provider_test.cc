#include "orvexd/platform/location_provider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

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

constexpr const char* kDesktopId = "com.zelmor.orvexd";
// Only a watchdog against an update that never comes.
constexpr auto kWatchdog = 30s;

class UpdateRecorder {
 public:
  LocationProvider::UpdateHandler handler() {
    return [this](const LocationUpdate& update) {
      std::lock_guard lock(mutex_);
      updates_.push_back(update);
      changed_.notify_all();
    };
  }
  // Waits for the update number `index` (from 0); nullopt on the watchdog.
  std::optional<LocationUpdate> waitFor(std::size_t index) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kWatchdog, [&] { return updates_.size() > index; })) {
      return std::nullopt;
    }
    return updates_[index];
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return updates_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<LocationUpdate> updates_;
};

struct SystemBus {
  TempDir dir;
  PrivateBus bus{dir.path()};
  ScopedEnv address{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()};
};

TEST(LocationProviderTest, DeliversGeoClueFixesUntilStopped) {
  SystemBus system;
  FakeGeoClue geoclue(system.bus);
  UpdateRecorder recorder;
  auto provider = makeGeoClueLocationProvider(kDesktopId);
  provider->startUpdates(recorder.handler());

  // Started, nothing known yet.
  auto first = recorder.waitFor(0);
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->authorized);
  EXPECT_FALSE(first->fix);
  FakeGeoClue::State state = geoclue.state();
  EXPECT_EQ(state.desktopId, kDesktopId);
  EXPECT_EQ(state.requestedAccuracyLevel, 8u);
  EXPECT_EQ(state.starts, 1);

  geoclue.publishLocation({48.8566, 2.3522, 35.0, 1700000000, 250000});
  auto update = recorder.waitFor(1);
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
  update = recorder.waitFor(2);
  ASSERT_TRUE(update && update->fix);
  EXPECT_DOUBLE_EQ(update->fix->latitude, -33.86);
  EXPECT_EQ(update->fix->type, 4);
  update = recorder.waitFor(3);
  ASSERT_TRUE(update && update->fix);
  EXPECT_DOUBLE_EQ(update->fix->latitude, 35.68);
  EXPECT_EQ(update->fix->type, 6);

  // A second start only replaces the handler.
  UpdateRecorder replacement;
  provider->startUpdates(replacement.handler());
  geoclue.publishLocation({51.5, -0.12, 80.0, 1700000400, 0});
  update = replacement.waitFor(0);
  ASSERT_TRUE(update && update->fix);
  EXPECT_DOUBLE_EQ(update->fix->latitude, 51.5);
  EXPECT_EQ(geoclue.state().clientsCreated, 1);
  EXPECT_EQ(recorder.count(), 4u);

  // Stopping stops the GeoClue client; starting again gets a new one, which already knows
  // the last location.
  provider->stopUpdates();
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 1 && s.activeClients == 0; },
                              kWatchdog));
  UpdateRecorder again;
  provider->startUpdates(again.handler());
  update = again.waitFor(0);
  ASSERT_TRUE(update && update->fix);
  EXPECT_DOUBLE_EQ(update->fix->latitude, 51.5);
  EXPECT_EQ(geoclue.state().clientsCreated, 2);

  // Destruction stops the client too.
  provider.reset();
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 2 && s.activeClients == 0; },
                              kWatchdog));
  EXPECT_EQ(again.count(), 1u);
}

TEST(LocationProviderTest, MissingOrRefusingServiceGivesOneUnauthorizedUpdate) {
  auto expectOneUnauthorized = [](const char* what) {
    SCOPED_TRACE(what);
    UpdateRecorder recorder;
    auto provider = makeGeoClueLocationProvider(kDesktopId);
    provider->startUpdates(recorder.handler());
    const auto update = recorder.waitFor(0);
    ASSERT_TRUE(update);
    EXPECT_FALSE(update->authorized);
    EXPECT_FALSE(update->fix);
    provider->stopUpdates();  // joins the provider's thread: every update has been delivered
    EXPECT_EQ(recorder.count(), 1u);
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
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  provider->startUpdates([&](const LocationUpdate&) {
    // Replacing the handler and stopping, both from the provider's thread.
    provider->startUpdates([&](const LocationUpdate&) {
      std::lock_guard lock(mutex);
      calls += 100;  // never called: updates stop below
      changed.notify_all();
    });
    provider->stopUpdates();
    std::lock_guard lock(mutex);
    ++calls;
    changed.notify_all();
  });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kWatchdog, [&] { return calls > 0; }));
  }
  EXPECT_TRUE(geoclue.waitFor([](const auto& s) { return s.stops == 1; }, kWatchdog));
  geoclue.publishLocation({1.0, 2.0, 3.0, 4, 5});
  provider.reset();
  std::lock_guard lock(mutex);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace orvex
