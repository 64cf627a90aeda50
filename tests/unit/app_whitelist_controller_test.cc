#include "orvexd/network/app_whitelist_controller.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/network/app_whitelist_signature.h"
#include "tests/support/test_assembly.h"
#include "tools/orvex-backend/app_whitelist_builder.h"

namespace orvex {
using backend::buildAppWhitelist;
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
  // Through the probe helper, as the daemon reads them.
  const auto scanned = scanInstalledApplications(locations.metainfoDirectories, limits);
  ASSERT_TRUE(scanned.has_value());
  const InstalledApplicationList& list = *scanned;
  EXPECT_EQ(list.applications,
            (std::vector<InstalledApplication>{
                {"org.example.A", "1.10"}, {"org.example.B", std::nullopt}, {"org.flat.C", "3"}}));
  EXPECT_EQ(list.skippedFiles, 2u);
  const auto& watched = locations.watchedDirectories;
  EXPECT_NE(std::find(watched.begin(), watched.end(), flatpak / "app"), watched.end());
  EXPECT_NE(std::find(watched.begin(), watched.end(), flatpak / "app/org.flat.C/current"),
            watched.end());
}

// Serves the whitelist from a file in the test's directory, as the download manager would.
class FakeDownloadManager final : public DownloadManager {
 public:
  explicit FakeDownloadManager(fs::path file) : file_(std::move(file)) {}
  std::optional<DownloadResource> resourceForKey(const std::string&) const override { return {}; }
  std::map<std::string, std::string> resourceVersions() const override { return {}; }
  std::optional<UniqueFd> fileHandleForResource(const std::string& identifier,
                                                ResourceFileAttributes* attributes,
                                                OrvexError* error) const override {
    UniqueFd fd(identifier == kORVInstalledAppWhitelist ? ::open(file_.c_str(), O_RDONLY) : -1);
    if (!fd) {
      *error = OrvexError("test", 404, "no such resource");
      return std::nullopt;
    }
    attributes->size = fs::file_size(file_);
    return fd;
  }

 private:
  fs::path file_;
};

TEST(OrvexAppWhitelistController, FollowsTheWhitelistAndTheInstalledApps) {
  testing::TestAssembly test;
  const fs::path metainfo = test.directory.path() / "share/metainfo";
  writeMetainfo(metainfo, "org.a", "desktop-application", {"1"});
  writeMetainfo(metainfo, "org.c", "desktop-application", {});  // no version: does not count
  const fs::path file = test.directory.path() / "whitelist.json";
  const auto writeWhitelist = [&](const std::string& version) {
    const nlohmann::json inner{{"version", version},
                               {"apps",
                                {{"org.a", {{{"encoding_id", 7}}}},
                                 {"org.b", {{{"encoding_id", 9}}}},
                                 {"org.c", {{{"encoding_id", 1}}}}}}};
    writeTextFile(
        file, nlohmann::json{{"apps", inner.dump()}, {"compression", "RLE"}, {"encoding", "bitmap"}}
                  .dump());
  };
  writeWhitelist("0a0b");
  test.assembly->downloadManager = std::make_shared<FakeDownloadManager>(file);
  (void)test.assembly->userDefaults->setObject(kORVAppWhitelistSignatureKey, PlistValue("last"));
  const auto stored = [&] {
    return test.assembly->userDefaults->stringForKey(kORVAppWhitelistSignatureKey);
  };

  // The stored value answers at once; the run at start replaces it. Index 7 alone: one byte 01.
  auto controller = std::make_shared<OrvexAppWhitelistController>(
      *test.assembly, MetainfoRoots{{test.directory.path() / "share"}, {}});
  controller->start();
  EXPECT_EQ(controller->whitelistSignature(), "last");
  test.settle();
  const auto first = makeSignature("0a0b", std::vector<uint8_t>{0x01});
  EXPECT_EQ(controller->whitelistSignature(), first);
  EXPECT_EQ(stored(), first);

  // Installing org.b (index 9: bytes 01 40) is seen by the watcher and answered once the burst
  // has settled, in virtual time.
  writeMetainfo(metainfo, "org.b", "desktop-application", {"2"});
  const auto second = makeSignature("0a0b", std::vector<uint8_t>{0x01, 0x40});
  EXPECT_TRUE(testing::eventually([&] {
    test.advance(OrvexAppWhitelistController::kInstalledAppsSettleDelay);
    test.settle();
    return controller->whitelistSignature() == second;
  }));

  // A new download (another version) recomputes; another resource's download does not.
  writeWhitelist("0a0c");
  test.assembly->notificationCenter->post(kORVFileDownloadCompletedNotification, nullptr,
                                          {{"identifier", std::string(kORVQIFeatures)}});
  test.settle();
  EXPECT_EQ(controller->whitelistSignature(), second);
  test.assembly->notificationCenter->post(kORVFileDownloadCompletedNotification, nullptr,
                                          {{"identifier", std::string(kORVInstalledAppWhitelist)}});
  test.settle();
  EXPECT_EQ(controller->whitelistSignature(), makeSignature("0a0c", std::vector<uint8_t>{1, 0x40}));

  // Deleting the whitelist drops the signature and its stored copy.
  test.assembly->notificationCenter->post(kORVFileDeletedNotification, nullptr,
                                          {{"identifier", std::string(kORVInstalledAppWhitelist)}});
  test.settle();
  EXPECT_EQ(controller->whitelistSignature(), std::nullopt);
  EXPECT_EQ(stored(), std::nullopt);
}

// The back-end's whitelist numbers the machine's applications from 1 in identifier order and
// reads back through the daemon's parser.
TEST(AppWhitelistBuilder, BuildsAWhitelistTheDaemonReads) {
  testing::TempDir dir;
  writeMetainfo(dir.path(), "org.z", "desktop-application", {"1"});
  writeMetainfo(dir.path(), "org.y", "web-application", {});
  const std::string document = buildAppWhitelist({dir.path()});
  const auto whitelist = processWhitelist(document);
  ASSERT_TRUE(whitelist);
  EXPECT_EQ(whitelist->encodingIds,
            (std::map<std::string, uint32_t, std::less<>>{{"org.y", 1}, {"org.z", 2}}));
  EXPECT_EQ(whitelist->version.size(), 8u);
  EXPECT_EQ(buildAppWhitelist({dir.path()}), document);
}

}  // namespace
}  // namespace orvex
