// Deep-link ingestion through the real daemon: a knowledge store written as a front-end would,
// the crowdsourcing lists from the reference back-end, runs on request with and without the
// lists, and what they leave.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_names.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string shippedBag() {
  return testing::readTextFile(fs::path(ORVEX_BACKEND_BINARY).parent_path() / "bag.json");
}

// Writes the lists to files the back-end serves, and returns its arguments.
std::vector<std::string> listArguments(const fs::path& directory) {
  const fs::path whitelist = directory / "whitelist.json";
  const fs::path blacklist = directory / "blacklist.json";
  testing::writeTextFile(whitelist,
                         R"({"static_apps_whitelist": ["org.example.Notes", "org.example.web"]})");
  testing::writeTextFile(
      blacklist,
      R"({"static_deeplinks_blacklist": ["https://blocked.example/x", "org.example.banned"]})");
  std::vector<std::string> arguments;
  for (const auto& [key, file] : {std::pair{kORVCrowdsourcingWhitelist, whitelist},
                                  std::pair{kORVCrowdsourcingBlacklist, blacklist}}) {
    arguments.emplace_back("--resource");
    arguments.emplace_back(key).append("=").append(file.string());
  }
  return arguments;
}

TEST(DeepLinkTest, ARunRecordsOnlyNoisedReportsAndCountsEveryStep) {
  testing::TempDir lists;
  testing::TempDir knowledge;
  const fs::path database = knowledge.path() / "knowledge.db";
  testing::DaemonHarness harness(shippedBag(),
                                 {{kORVKnowledgeStorePathKey, PlistValue(database.string())}},
                                 listArguments(lists.path()));

  // An hour ago: whitelisted applications with a link each (one refused by the blacklist, one
  // page not publicly indexable), a blacklisted application, and one on neither list.
  const std::string hourAgo = std::to_string(
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() -
      3600);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
  std::string sql =
      "CREATE TABLE app_activity(bundle_id TEXT NOT NULL, start_time REAL NOT NULL, end_time "
      "REAL, unique_id TEXT, content_url TEXT, publicly_indexable INTEGER);"
      "INSERT INTO app_activity VALUES";
  for (const char* row : {"'org.example.Notes', @, NULL, 'notes://item/1', NULL, 1",
                          "'org.example.Notes', @, NULL, 'notes://secret/2', NULL, 0",
                          "'org.example.web', @, NULL, NULL, 'https://blocked.example/x', 1",
                          "'org.example.web', @, NULL, NULL, 'https://Example.com/page/', 1",
                          "'org.example.banned', @, NULL, 'banned://x', NULL, 1",
                          "'org.example.Plain', @, NULL, 'plain://y', NULL, 1"}) {
    std::string values(row);
    values.replace(values.find('@'), 1, hourAgo);
    sql.append(sql.back() == ')' ? ",(" : "(").append(values).append(")");
  }
  ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);

  harness.start();
  const fs::path cache = harness.cacheDirectory() / "com.zelmor.orvexd";
  ASSERT_TRUE(testing::eventually(
      [&] {
        return fs::is_regular_file(cache / kORVCrowdsourcingWhitelist) &&
               fs::is_regular_file(cache / kORVCrowdsourcingBlacklist);
      },
      20s))
      << harness.daemonLog();
  ASSERT_TRUE(harness.client()->runActivity(kORVDeepLinkIngestActivityIdentifier));
  ASSERT_TRUE(testing::eventually([&] { return harness.counter(kORVCounterDPRecord) == 1; }))
      << harness.daemonLog();

  const std::map<std::string, int64_t> expected = {
      {kORVCounterDPEligibleLinks, 5},
      {kORVCounterDPNormalizedLinkUrls, 2},
      {kORVCounterDPNormalizedLinkBundleIds, 1},
      {kORVCounterDPNormalizedLink, 3},
      {kORVCounterDPNormalizedLinkWhitelistedBlacklisted, 1},
      {kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted, 1},
      {kORVCounterDPSentLinksApp, 3},
      {kORVCounterDPRecordAppSuccess, 3},
      {kORVCounterDPSentLinks, 3},
  };
  for (const auto& [key, value] : expected) EXPECT_EQ(harness.counter(key), value) << key;
  EXPECT_EQ(harness.counter(kORVCounterDPRecordAppFailure), 0);

  // Three applications' reports, and nothing of the user's pages or applications in clear in
  // any file the daemon wrote (the filter lists it downloaded are the server's).
  size_t reportFiles = 0;
  for (const auto& entry : fs::recursive_directory_iterator(harness.directory())) {
    if (!entry.is_regular_file()) continue;
    reportFiles += entry.path().extension() == ".cms";
    const std::string bytes = testing::readTextFile(entry.path());
    for (const char* clear : {"org.example.Plain", "org.example.plain", "notes://item/1", "item/1",
                              "example.com/page", "AppDeepLink"}) {
      EXPECT_EQ(bytes.find(clear), std::string::npos) << clear << " in " << entry.path();
    }
  }
  EXPECT_EQ(reportFiles, 3u);

  // A bag without the two lists: their files go, every application counts as on neither list,
  // and only bundle identifiers are recorded (one for each of the four applications).
  ASSERT_EQ(harness.stop(), 0);
  auto bag = nlohmann::json::parse(shippedBag());
  bag.erase(kORVCrowdsourcingWhitelist);
  bag.erase(kORVCrowdsourcingBlacklist);
  testing::writeTextFile(harness.directory() / "bag.json", bag.dump());
  fs::remove(cache / "bag.plist");
  harness.start();
  ASSERT_TRUE(testing::eventually([&] {
    return !fs::exists(cache / kORVCrowdsourcingWhitelist) &&
           !fs::exists(cache / kORVCrowdsourcingBlacklist);
  }));
  ASSERT_TRUE(harness.client()->runActivity(kORVDeepLinkIngestActivityIdentifier));
  ASSERT_TRUE(testing::eventually([&] { return harness.counter(kORVCounterDPRecord) == 1; }));
  EXPECT_EQ(harness.counter(kORVCounterDPEligibleLinks), 5);
  EXPECT_EQ(harness.counter(kORVCounterDPNormalizedLinkBundleIds), 5);
  EXPECT_EQ(harness.counter(kORVCounterDPNormalizedLinkUrls), 0);
  EXPECT_EQ(harness.counter(kORVCounterDPSentLinks), 4);
  EXPECT_EQ(harness.counter(kORVCounterDPRecordAppSuccess), 4);
}

}  // namespace
}  // namespace orvex
