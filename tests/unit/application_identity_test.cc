// How the daemon names an application process: Flatpak id, systemd app unit, executable.
#include "orvexd/platform/application_identity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/log_capture.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

TEST(ApplicationIdentityTest, ClientIdComesFromFlatpakThenTheAppUnitThenTheExecutable) {
  testing::TempDir proc;
  auto process = [&](int pid) {
    auto dir = proc.path() / std::to_string(pid);
    std::filesystem::create_directories(dir / "root");
    return dir;
  };

  const auto flatpak = process(10);
  std::ofstream(flatpak / "root" / ".flatpak-info")
      << "[Instance]\nname=ignored\n[Application]\nname=org.example.Browser\nruntime=x\n";
  std::ofstream(flatpak / "cgroup") << "0::/user.slice/app-flatpak-org.other.App-1.scope\n";
  EXPECT_EQ(applicationIdForProcess(10, proc.path()), "org.example.Browser");

  const auto scope = process(11);
  std::ofstream(scope / "cgroup") << "0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                     "app-gnome-org.example.Voice-4242.scope\n";
  EXPECT_EQ(applicationIdForProcess(11, proc.path()), "org.example.Voice");

  const auto service = process(12);
  std::ofstream(service / "cgroup") << "0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                       "app-org.example.News@autostart.service\n";
  EXPECT_EQ(applicationIdForProcess(12, proc.path()), "org.example.News");

  const auto plain = process(13);
  std::ofstream(plain / "cgroup") << "0::/user.slice/session-2.scope\n";
  std::filesystem::create_symlink("/usr/bin/glance-search", plain / "exe");
  EXPECT_EQ(applicationIdForProcess(13, proc.path()), "glance-search");

  // Nothing to go on: no id, and the reason in the log.
  testing::LogCapture log;
  EXPECT_EQ(applicationIdForProcess(14, proc.path()), std::nullopt);
  EXPECT_TRUE(log.containsPrefix("error getting path for pid [14] "));

  // The real thing: this test process.
  EXPECT_TRUE(applicationIdForProcess(getpid()).has_value());
}

}  // namespace
}  // namespace orvex
