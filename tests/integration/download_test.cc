// The bag's resource files through the real daemon and the reference back-end: the first
// download of each, a restart with the same bag, a bag that drops a key and disables lookup, and
// what a client may do with a file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_names.h"
#include "orvexd/base/property_list.h"
#include "orvexd/platform/sha256_hex.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

// The back-end's own bag, naming every resource, with lookup on.
Json shippedBag(bool lookupEnabled) {
  auto bag =
      Json::parse(testing::readTextFile(fs::path(ORVEX_BACKEND_BINARY).parent_path() / "bag.json"));
  bag["lookup_enabled"] = lookupEnabled;
  return bag;
}

class DownloadTest : public ::testing::Test {
 protected:
  fs::path file(std::string_view key) const {
    return harness.cacheDirectory() / "com.zelmor.orvexd" / key;
  }
  // "download_resources" as the daemon last wrote it.
  PlistDictionary saved() const {
    const auto defaults = parsePropertyList(
        testing::readBytes(harness.directory() / "config/com.zelmor.orvexd/defaults.plist"));
    const auto* all = defaults ? defaults->asDictionary() : nullptr;
    const auto found =
        all ? all->find(kORVDownloadResourcesKey) : PlistDictionary::const_iterator();
    return all && found != all->end() ? *found->second.asDictionary() : PlistDictionary();
  }
  std::string savedUrl(std::string_view key, const char* field) const {
    const auto records = saved();
    const auto* record = records.at(std::string(key)).asDictionary();
    return record->contains(field) ? *record->at(field).asString() : "";
  }
  std::vector<testing::ReferenceBackend::Request> fileRequests(std::string_view key) {
    std::vector<testing::ReferenceBackend::Request> requests;
    for (auto& request : harness.backend().requests()) {
      if (request.endpoint == key) requests.push_back(std::move(request));
    }
    return requests;
  }

  testing::DaemonHarness harness{shippedBag(true).dump()};
};

TEST_F(DownloadTest, FilesFollowTheBagAcrossRestartsAndClientsOnlyReadThem) {
  harness.start();
  ASSERT_TRUE(testing::eventually(
      [&] {
        for (const auto key : kORVResourceKeys) {
          if (!fs::is_regular_file(file(key))) return false;
        }
        return saved().size() == kORVResourceKeys.size();
      },
      20s))
      << harness.daemonLog();
  EXPECT_EQ(harness.counter(kORVCounterResourceFilesFetched), 10);
  for (const auto key : kORVResourceKeys) {
    const auto requests = fileRequests(key);
    ASSERT_EQ(requests.size(), 1u) << key;
    EXPECT_EQ(requests[0].headers.at("X-Zelmor-Download-Identifier"), key);
    EXPECT_FALSE(requests[0].headers.contains("If-None-Match")) << "nothing to keep yet";
    struct stat info {};
    ASSERT_EQ(::lstat(file(key).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(savedUrl(key, "url").find("key="), std::string::npos);
  }
  EXPECT_NE(fileRequests(kORVQIFeatures)[0].query.find("key="), std::string::npos);
  const std::string weekly = savedUrl(kORVLookupHintsWeekly, "redirect_url");
  EXPECT_TRUE(
      weekly.starts_with(harness.backend().baseUrl() + "/resources/lookup_hints_weekly?v="));

  // A descriptor reads exactly the file and cannot write; identifiers other than the keys fail.
  auto client = harness.client();
  auto qi = client->fileHandleAndAttributesForResource(kORVQIFeatures);
  ASSERT_TRUE(qi && qi.value().fd);
  const auto& attributes = qi.value().attributes;
  std::string bytes(attributes.size + 1, '\0');
  ASSERT_EQ(::pread(qi.value().fd.get(), bytes.data(), bytes.size(), 0),
            static_cast<ssize_t>(attributes.size));
  bytes.resize(attributes.size);
  EXPECT_EQ(bytes, testing::readTextFile(file(kORVQIFeatures)));
  EXPECT_EQ(::write(qi.value().fd.get(), "x", 1), -1);
  EXPECT_EQ(attributes.url, savedUrl(kORVQIFeatures, "url"));
  for (const char* identifier : {"../defaults.plist", "a/b", "bag.plist"}) {
    auto refused = client->fileHandleAndAttributesForResource(identifier);
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused.value().fd);
    EXPECT_EQ(refused.value().error.value_or(OrvexError()).code, 400) << identifier;
  }

  // Restarted with the same bag, only the lookup files are asked for, with their signature, and
  // the 304 keeps them.
  ASSERT_EQ(harness.stop(), 0);
  harness.start();
  ASSERT_TRUE(testing::eventually([&] {
    return fileRequests(kORVLookupHintsWeekly).size() == 2 &&
           fileRequests(kORVLookupHintsMonthly).size() == 2;
  }));
  const auto again = fileRequests(kORVLookupHintsWeekly)[1];
  EXPECT_EQ(again.headers.at("If-None-Match"), sha256Hex(weekly));
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(fileRequests(kORVQIFeatures).size(), 1u);
  EXPECT_EQ(fileRequests(kORVCrowdsourcingWhitelist).size(), 1u);
  EXPECT_TRUE(fs::is_regular_file(file(kORVLookupHintsWeekly)));
  EXPECT_EQ(harness.counter(kORVCounterResourceFilesFetched), 0);

  // A bag without glance_models and with lookup off; a link planted at correction_dict.
  ASSERT_EQ(harness.stop(), 0);
  Json bag = shippedBag(false);
  bag.erase(kORVGlanceModels);
  testing::writeTextFile(harness.directory() / "bag.json", bag.dump());
  fs::remove(harness.cacheDirectory() / "com.zelmor.orvexd" / "bag.plist");
  const fs::path precious = harness.directory() / "precious";
  testing::writeTextFile(precious, "precious");
  fs::remove(file(kORVCorrectionDict));
  fs::create_symlink(precious, file(kORVCorrectionDict));
  harness.start();
  ASSERT_TRUE(testing::eventually([&] {
    return !fs::exists(file(kORVGlanceModels)) && !saved().contains(kORVGlanceModels) &&
           fs::is_regular_file(fs::symlink_status(file(kORVCorrectionDict)));
  }));
  EXPECT_EQ(testing::readTextFile(precious), "precious");
  EXPECT_EQ(testing::readTextFile(file(kORVCorrectionDict)).substr(0, 6), "break\n");
  EXPECT_TRUE(
      testing::eventually([&] { return harness.counter(kORVCounterResourceFilesFetched) == 1; }));
  EXPECT_TRUE(saved().contains(kORVLookupHintsWeekly));
  EXPECT_TRUE(fs::is_regular_file(file(kORVLookupHintsMonthly)));
  EXPECT_EQ(fileRequests(kORVLookupHintsWeekly).size(), 2u);
  auto dropped = client->fileHandleAndAttributesForResource(kORVGlanceModels);
  ASSERT_TRUE(dropped);
  EXPECT_EQ(dropped.value().error.value_or(OrvexError()).code, 404);
}

}  // namespace
}  // namespace orvex
