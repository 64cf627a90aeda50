#include <gtest/gtest.h>
#include <sqlite3.h>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/dp_app_deep_link_ingester.h"
#include "orvexd/feedback/dp_periodic_task.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/knowledge_store.h"
#include "orvexd/platform/virtual_clock.h"
#include "orvexd/platform/worker_pool.h"
#include "tests/support/test_assembly.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using Ingester = OrvexDPAppDeepLinkIngester;

int64_t counter(const char* key) {
  const auto counters = OrvexDiagnosticDataReporter::snapshot();
  const auto it = counters.find(key);
  return it == counters.end() ? 0 : it->second;
}

TEST(DPPeriodicTask, RaisesShortPeriodsAndNeedsANameAndAHandler) {
  WorkerPool pool(1);
  VirtualClock clock;
  const auto task = OrvexDPPeriodicTask::taskWithName(
      "t", 3, [] {}, pool, clock);
  ASSERT_TRUE(task);
  EXPECT_EQ(task->periodSeconds(), 5u);
  EXPECT_EQ(task->executionCriteria().interval, std::chrono::seconds(5));
  EXPECT_TRUE(task->executionCriteria().repeating);
  EXPECT_TRUE(task->executionCriteria().requireScreenSleep);
  EXPECT_TRUE(task->executionCriteria().requireUnlockedSinceBoot);
  EXPECT_EQ(OrvexDPPeriodicTask::taskWithName(
                "t", 43200, [] {}, pool, clock)
                ->periodSeconds(),
            43200u);
  EXPECT_FALSE(OrvexDPPeriodicTask::taskWithName(
      "", 60, [] {}, pool, clock));
  EXPECT_FALSE(OrvexDPPeriodicTask::taskWithName("t", 60, nullptr, pool, clock));
}

TEST(DeepLinkIngester, FiltersAndNormalisesAsTheListsSay) {
  const Ingester::DeepLinkList links = {
      // Whitelisted: the first usable link only; a non-web link is prefixed with the bundle id.
      {"org.Example.Notes", {"Notes://Item/42/", "https://example.com/second"}},
      // Whitelisted, first link unusable (relative): the second one is taken.
      {"org.example.web", {"not a url", "https://Example.COM:443/a/./b/"}},
      // Whitelisted, but its link is blacklisted.
      {"org.example.web", {"https://blocked.example/x"}},
      // On neither list: its own bundle identifier, lower-cased.
      {"Org.Example.Plain", {"whatever://x"}},
      // Not whitelisted and blacklisted.
      {"org.example.banned", {"https://example.com/"}},
  };
  const std::vector<std::string> whitelist = {"org.example.notes", "ORG.EXAMPLE.WEB"};
  const std::vector<std::string> blacklist = {"https://blocked.example/x", "org.example.banned"};
  const int64_t urls = counter(kORVCounterDPNormalizedLinkUrls);
  const int64_t bundleIds = counter(kORVCounterDPNormalizedLinkBundleIds);
  const int64_t all = counter(kORVCounterDPNormalizedLink);
  const int64_t white = counter(kORVCounterDPNormalizedLinkWhitelistedBlacklisted);
  const int64_t notWhite = counter(kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted);

  const auto submission = Ingester::_normalizeAndFilterDeepLinks(links, blacklist, whitelist);
  const Ingester::Submission expected = {
      {"org.example.notes", {"org.example.notes://notes://item/42"}},
      {"org.example.web", {"https://example.com/a/b"}},
      {"org.example.plain", {"org.example.plain"}},
  };
  EXPECT_EQ(submission, expected);
  EXPECT_EQ(counter(kORVCounterDPNormalizedLinkUrls) - urls, 2);
  EXPECT_EQ(counter(kORVCounterDPNormalizedLinkBundleIds) - bundleIds, 1);
  EXPECT_EQ(counter(kORVCounterDPNormalizedLink) - all, 3);
  EXPECT_EQ(counter(kORVCounterDPNormalizedLinkWhitelistedBlacklisted) - white, 1);
  EXPECT_EQ(counter(kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted) - notWhite, 1);

  // Without lists every application counts as neither: only bundle identifiers.
  const auto bare = Ingester::_normalizeAndFilterDeepLinks(links, std::nullopt, std::nullopt);
  EXPECT_EQ(bare.size(), 4u);
  for (const auto& [bundle, set] : bare) EXPECT_EQ(set, std::set<std::string>{bundle});
}

TEST(DeepLinkIngester, ReadsPubliclyIndexableEventsFromTheKnowledgeStore) {
  testing::TempDir dir;
  const std::string path = (dir.path() / "knowledge.db").string();
  EXPECT_TRUE(KnowledgeStore(path).appActivities(WallTime(), WallTime::max(), 100).empty());
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE app_activity(bundle_id TEXT NOT NULL, start_time REAL NOT "
                         "NULL, end_time REAL, unique_id TEXT, content_url TEXT, "
                         "publicly_indexable INTEGER);"
                         "INSERT INTO app_activity VALUES"
                         "('a.both', 100, 110, 'a://1', 'https://a.example/1', 1),"
                         "('a.id', 200, NULL, 'a://2', NULL, 1),"
                         "('a.url', 300, NULL, NULL, 'https://a.example/3', 1),"
                         "('a.none', 400, NULL, NULL, NULL, 1),"
                         "('a.private', 500, NULL, 'a://5', NULL, 0),"
                         "('a.late', 9000, NULL, 'a://6', NULL, 1);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  const auto at = [](int seconds) { return WallTime(std::chrono::seconds(seconds)); };
  const KnowledgeStore store(path);
  const auto events = store.appActivities(at(0), at(1000), 100);
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(store.appActivities(at(0), at(1000), 2).size(), 2u);
  const Ingester::DeepLinkList expected = {
      {"a.both", {"a://1", "https://a.example/1"}},
      {"a.id", {"a://2"}},
      {"a.url", {"https://a.example/3"}},
  };
  EXPECT_EQ(Ingester::deepLinksFor(events), expected);

  // A run through the ingester, without filter lists: only bundle identifiers are recorded, and
  // nothing of them in clear. A start after the end reads nothing.
  testing::TestAssembly test;
  test.assembly->userDefaults->setObject(kORVKnowledgeStorePathKey, PlistValue(path));
  Ingester ingester(*test.assembly, nullptr);
  const int64_t eligible = counter(kORVCounterDPEligibleLinks);
  const int64_t sent = counter(kORVCounterDPSentLinks);
  EXPECT_TRUE(ingester.ingestStartingOn(at(1000), at(0)));
  EXPECT_EQ(counter(kORVCounterDPEligibleLinks), eligible);
  EXPECT_EQ(counter(kORVCounterDPSentLinks), sent);
  EXPECT_TRUE(ingester.recorder().summaries().empty());

  EXPECT_TRUE(ingester.ingestStartingOn(at(0), at(1000)));
  EXPECT_EQ(counter(kORVCounterDPEligibleLinks) - eligible, 3);
  EXPECT_EQ(counter(kORVCounterDPSentLinks) - sent, 3);
  EXPECT_EQ(ingester.recorder().summaries().size(), 3u);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(test.directory.path())) {
    if (!entry.is_regular_file()) continue;
    const std::string bytes = testing::readTextFile(entry.path());
    for (const char* clear : {"a.both", "a.id", "a.url", "a.example", "AppDeepLink"}) {
      EXPECT_EQ(bytes.find(clear), std::string::npos) << clear << " in " << entry.path();
    }
  }
}

}  // namespace
}  // namespace orvex
