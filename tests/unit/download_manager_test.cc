// The download manager's parts that no bag drives: a significant location change, and the URLs
// it stores.
#include "orvexd/network/download_manager.h"

#include <gtest/gtest.h>

#include "orvexd/base/orvex_names.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

TEST(DownloadManagerTest, ALocationChangeForgetsTheLookupFilesButKeepsThemOnDisk) {
  testing::TestAssembly test;
  Assembly& assembly = *test.assembly;
  const auto record = [](const char* url) {
    return PlistValue(PlistDictionary{{"url", PlistValue(url)}});
  };
  ASSERT_TRUE(assembly.userDefaults->setObject(
      kORVDownloadResourcesKey,
      PlistValue(PlistDictionary{{kORVLookupHintsWeekly, record("https://h.example/w")},
                                 {kORVQIFeatures, record("https://h.example/q?version=7")},
                                 {"../escape", record("https://h.example/e")}})));
  const auto weekly = assembly.fileManager->cacheDirectory() / kORVLookupHintsWeekly;
  ASSERT_FALSE(assembly.fileManager->ensureDirectory(weekly.parent_path()));
  testing::writeTextFile(weekly, "hints");
  std::vector<std::string> deleted;
  auto observer = assembly.notificationCenter->addObserver(
      kORVFileDeletedNotification, nullptr, [&deleted](const Notification& notification) {
        deleted.push_back(*notification.userInfoValue<std::string>("identifier"));
      });

  auto manager = OrvexDownloadManager::initWithAssembly(assembly, nullptr);
  manager->handleSignificantLocationChange();
  test.settle();
  EXPECT_EQ(deleted, std::vector<std::string>{kORVLookupHintsWeekly});
  EXPECT_FALSE(manager->resourceForKey(kORVLookupHintsWeekly));
  EXPECT_FALSE(manager->resourceForKey("../escape")) << "only resource keys are loaded";
  EXPECT_EQ(testing::readTextFile(weekly), "hints");
  EXPECT_EQ(manager->resourceVersions(),
            (std::map<std::string, std::string>{{kORVQIFeatures, "7"}}));
  const auto saved = assembly.userDefaults->dictionaryForKey(kORVDownloadResourcesKey);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->size(), 1u);

  EXPECT_EQ(OrvexDownloadManager::urlForCompare("https://h.example/f?key=s&v=1&key=t#x"),
            "https://h.example/f?v=1#x");
  EXPECT_EQ(OrvexDownloadManager::urlForCompare("https://h.example/f?key=s"),
            "https://h.example/f");
}

}  // namespace
}  // namespace orvex
