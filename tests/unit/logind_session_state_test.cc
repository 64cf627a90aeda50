#include "orvexd/platform/logind_session_state.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <mutex>

#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::ScopedEnv;

constexpr char kSessionPath[] = "/org/freedesktop/login1/session/c1";

// The few login manager properties the daemon reads, on a private system bus.
struct FakeLogind {
  explicit FakeLogind(const testing::PrivateBus& bus) : connection(bus.connect()) {
    user = sdbus::createObject(*connection, "/org/freedesktop/login1/user/self");
    user->registerProperty("State").onInterface("org.freedesktop.login1.User").withGetter([this] {
      return get(userState);
    });
    user->registerProperty("Display").onInterface("org.freedesktop.login1.User").withGetter([this] {
      return sdbus::Struct<std::string, sdbus::ObjectPath>(
          hasDisplay ? "c1" : "", sdbus::ObjectPath(hasDisplay ? kSessionPath : "/"));
    });
    user->finishRegistration();
    session = sdbus::createObject(*connection, kSessionPath);
    session->registerProperty("IdleHint")
        .onInterface("org.freedesktop.login1.Session")
        .withGetter([this] { return idle.load(); });
    session->registerProperty("LockedHint")
        .onInterface("org.freedesktop.login1.Session")
        .withGetter([this] { return locked.load(); });
    session->finishRegistration();
    connection->requestName("org.freedesktop.login1");
    connection->enterEventLoopAsync();
  }
  ~FakeLogind() { connection->leaveEventLoop(); }
  std::string get(const std::string& value) {
    std::lock_guard lock(mutex);
    return value;
  }

  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> user;
  std::unique_ptr<sdbus::IObject> session;
  std::mutex mutex;
  std::string userState = "lingering";  // mutex
  std::atomic<bool> hasDisplay{true};
  std::atomic<bool> idle{false};
  std::atomic<bool> locked{true};
};

TEST(LogindSessionState, ReadsTheDisplaySessionAndRemembersAnUnlock) {
  testing::TempDir dir;
  {
    // No system bus: both criteria count as met.
    ScopedEnv address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (dir.path() / "none").string());
    const SessionState state = LogindSessionState().current();
    EXPECT_TRUE(state.screenAsleep && state.unlockedSinceBoot);
  }
  testing::PrivateBus bus(dir.path());
  ScopedEnv address("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
  FakeLogind logind(bus);
  LogindSessionState reader;

  // A lingering user whose screen is on and locked has not unlocked since boot.
  SessionState state = reader.current();
  EXPECT_FALSE(state.screenAsleep);
  EXPECT_FALSE(state.unlockedSinceBoot);

  // Seen unlocked once, the device stays "unlocked since boot" when locked again.
  logind.locked = false;
  EXPECT_TRUE(reader.current().unlockedSinceBoot);
  logind.locked = true;
  logind.idle = true;
  state = reader.current();
  EXPECT_TRUE(state.screenAsleep && state.unlockedSinceBoot);

  // A logged-in user without a display session: no screen in use.
  {
    std::lock_guard lock(logind.mutex);
    logind.userState = "active";
  }
  logind.hasDisplay = false;
  state = LogindSessionState().current();
  EXPECT_TRUE(state.screenAsleep && state.unlockedSinceBoot);
}

}  // namespace
}  // namespace orvex
