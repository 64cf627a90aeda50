#include <gtest/gtest.h>

#include <filesystem>

#include "orvexd/platform/installed_applications.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;
using testing::writeTextFile;

void writeMetainfo(const fs::path& directory, const std::string& id, const std::string& type,
                   const std::vector<std::string>& versions) {
  fs::create_directories(directory);
  std::string releases;
  for (const auto& version : versions) releases.append("<release version=\"" + version + "\"/>");
  writeTextFile(directory / (id + ".metainfo.xml"),
                "<?xml version=\"1.0\"?><component type=\"" + type + "\"><id>" + id +
                    "</id><name>n</name><releases>" + releases + "</releases></component>");
}

// Applications, not fonts; the newest release by version order, not by position or text; a
// component without releases has no version; a malformed or oversized file is skipped; Flatpak
// apps are found in their deployment.
TEST(InstalledApplications, ReadsApplicationsAndTheirNewestRelease) {
  testing::TempDir dir;
  const fs::path share = dir.path() / "share" / "metainfo";
  writeMetainfo(share, "org.example.A", "desktop-application", {"1.9", "1.10", "1.2"});
  writeMetainfo(share, "org.example.B", "console-application", {});
  writeMetainfo(share, "org.example.Font", "font", {"2"});
  writeTextFile(share / "broken.metainfo.xml", "<component><id>x</id");
  writeTextFile(share / "huge.metainfo.xml", std::string(5000, ' '));
  const fs::path flatpak = dir.path() / "flatpak";
  const fs::path branch = flatpak / "app/org.flat.C/x86_64/stable";
  writeMetainfo(branch / "abc123/files/share/metainfo", "org.flat.C", "desktop-application", {"3"});
  fs::create_directory_symlink("abc123", branch / "active");
  fs::create_directory_symlink("x86_64/stable", flatpak / "app/org.flat.C/current");

  const MetainfoRoots roots{{dir.path() / "share", dir.path() / "missing"}, {flatpak}};
  const InstalledApplicationLimits limits{.maxFileBytes = 4096};
  const MetainfoLocations locations = findMetainfoLocations(roots, limits);
  const auto list = readInstalledApplications(locations.metainfoDirectories, limits);
  EXPECT_EQ(list.applications,
            (std::vector<InstalledApplication>{
                {"org.example.A", "1.10"}, {"org.example.B", std::nullopt}, {"org.flat.C", "3"}}));
  EXPECT_EQ(list.skippedFiles, 2u);
  const auto& watched = locations.watchedDirectories;
  EXPECT_NE(std::find(watched.begin(), watched.end(), flatpak / "app"), watched.end());
  EXPECT_NE(std::find(watched.begin(), watched.end(), flatpak / "app/org.flat.C/current"),
            watched.end());
}

}  // namespace
}  // namespace orvex
