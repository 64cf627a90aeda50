// The built daemon on a private dbus-daemon: activation, GetCounters, the exit on SIGTERM and
// SIGINT, the refusal of a second instance, and the defaults file it reads at start-up.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <csignal>
#include <fstream>

#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::readTextFile;
using Clock = std::chrono::steady_clock;

std::map<std::string, int64_t> getCounters(sdbus::IConnection& connection) {
  auto proxy = sdbus::createProxy(connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
  std::map<std::string, int64_t> counters;
  proxy->callMethod("GetCounters")
      .onInterface("com.zelmor.orvexd.Diagnostics")
      .storeResultsTo(counters);
  return counters;
}

// Whether the daemon of process `pid` soon owns the daemon's name.
bool ownedSoonBy(sdbus::IConnection& connection, pid_t pid) {
  return eventually(
      [&] { return testing::PrivateBus::ownerPid(connection, "com.zelmor.orvexd") == pid; });
}

class DaemonTest : public ::testing::Test {
 protected:
  std::map<std::string, std::string> daemonEnvironment() const {
    return {{"XDG_CONFIG_HOME", (dir / "config").string()},
            {"XDG_CACHE_HOME", (dir / "cache").string()},
            {"ORVEXD_LOG_LEVEL", "debug"},
            {"JOURNAL_STREAM", ""},
            {"INVOCATION_ID", ""}};
  }

  testing::TempDir dir;
};

// SIGINT here; SIGTERM ends the daemon started by hand below.
TEST_F(DaemonTest, ActivatedByTheBusCountsItsLaunchAndExitsZeroOnSigint) {
  const auto status = dir / "status";
  const auto log = dir / "bus.log";
  // The wrapper records the daemon's exit status, which the bus daemon would swallow.
  std::ofstream(dir / "launch.sh")
      << "#!/bin/sh\n\"" << ORVEXD_BINARY << "\"\necho $? > \"" << status.string()
      << ".tmp\"\nmv \"" << status.string() << ".tmp\" \"" << status.string() << "\"\n";
  testing::PrivateBus bus(dir.path(), daemonEnvironment(), log);
  bus.addActivationFile("com.zelmor.orvexd", "/bin/sh " + (dir / "launch.sh").string());
  auto connection = bus.connect();
  ASSERT_FALSE(testing::PrivateBus::hasOwner(*connection, "com.zelmor.orvexd"));

  // The first call activates the daemon and is answered by it, the second by the same one.
  EXPECT_EQ(getCounters(*connection).at("com.zelmor.orvexd.launch"), 1);
  EXPECT_EQ(getCounters(*connection).at("com.zelmor.orvexd.launch"), 1);

  // The launch event is logged from a queue after start-up; a signal that comes first ends the
  // process before it, as it would any pending work, so wait for the line before signalling.
  const std::string launchLine =
      "info [com.zelmor.orvexd:Orvex] launch event for com.zelmor.orvexd "
      "(session bus activation)";
  EXPECT_TRUE(eventually([&] { return readTextFile(log).find(launchLine) != std::string::npos; }))
      << readTextFile(log);

  const auto pid = testing::PrivateBus::ownerPid(*connection, "com.zelmor.orvexd");
  ASSERT_TRUE(pid.has_value());
  const auto sent = Clock::now();
  ASSERT_EQ(::kill(*pid, SIGINT), 0);
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(status); }));
  EXPECT_LT(Clock::now() - sent, 1s);
  EXPECT_EQ(readTextFile(status), "0\n");
  EXPECT_TRUE(
      eventually([&] { return !testing::PrivateBus::hasOwner(*connection, "com.zelmor.orvexd"); }));
  EXPECT_NE(readTextFile(log).find("] SIGINT"), std::string::npos) << readTextFile(log);
}

TEST_F(DaemonTest, StartedByHandOwnsItsNameOnceAndLogsTheSignalItEndsOn) {
  testing::PrivateBus bus(dir.path() / "bus-dir");
  auto environment = daemonEnvironment();
  environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  environment["DBUS_STARTER_BUS_TYPE"] = "";
  environment["DBUS_STARTER_ADDRESS"] = "";
  const auto log = dir / "first.log";
  testing::ChildProcess first({ORVEXD_BINARY}, environment, log);
  auto connection = bus.connect();
  ASSERT_TRUE(ownedSoonBy(*connection, first.pid()));
  EXPECT_EQ(getCounters(*connection).at("com.zelmor.orvexd.launch"), 1);

  // A second daemon on the same bus cannot own the name and says so.
  const auto secondLog = dir / "second.log";
  testing::ChildProcess second({ORVEXD_BINARY}, environment, secondLog);
  EXPECT_EQ(second.waitForExit(5s), 1);
  EXPECT_NE(readTextFile(secondLog).find("cannot own the bus name com.zelmor.orvexd"),
            std::string::npos);

  // Interface members that do not exist get an error; the daemon carries on.
  auto proxy = sdbus::createProxy(*connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
  EXPECT_THROW(proxy->callMethod("Nonexistent").onInterface("com.zelmor.orvexd.Diagnostics"),
               sdbus::Error);
  EXPECT_EQ(getCounters(*connection).at("com.zelmor.orvexd.launch"), 1);

  first.signal(SIGTERM);
  EXPECT_EQ(first.waitForExit(2s), 0);
  const auto text = readTextFile(log);
  EXPECT_NE(text.find("debug [com.zelmor.orvexd:Orvex] SIGTERM"), std::string::npos) << text;
  EXPECT_EQ(text.find("launch event for"), std::string::npos) << "started by hand: no event";
}

// (A corrupt file, read as empty and kept for the operator: the defaults store's unit test.)
TEST_F(DaemonTest, ReadsTraceEnabledFromItsDefaultsFile) {
  testing::PrivateBus bus(dir.path() / "bus-dir");
  auto environment = daemonEnvironment();
  environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  std::filesystem::create_directories(dir / "config/com.zelmor.orvexd");
  testing::writeTextFile(dir / "config/com.zelmor.orvexd/defaults.plist",
                         R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>TraceEnabled</key><true/></dict></plist>
)");
  auto connection = bus.connect();
  const auto log = dir / "trace.log";
  testing::ChildProcess daemon({ORVEXD_BINARY}, environment, log);
  ASSERT_TRUE(ownedSoonBy(*connection, daemon.pid()));
  EXPECT_EQ(getCounters(*connection).at("com.zelmor.orvexd.launch"), 1);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForExit(2s), 0);
  EXPECT_NE(readTextFile(log).find("ORVTraceEnabled flag set to 1"), std::string::npos);
}

TEST(DaemonBinary, CarriesTheTraceProbe) {
  testing::TempDir dir;
  const auto notes = dir / "notes.txt";
  testing::ChildProcess readelf({"readelf", "-n", ORVEXD_BINARY}, {}, notes);
  ASSERT_EQ(readelf.waitForExit(10s), 0);
  const auto text = readTextFile(notes);
  EXPECT_NE(text.find("Provider: orvexd"), std::string::npos) << text;
  EXPECT_NE(text.find("Name: trace"), std::string::npos) << text;
}

}  // namespace
}  // namespace orvex
