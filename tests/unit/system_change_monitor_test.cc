#include "orvexd/platform/system_change_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "orvexd/platform/worker_pool.h"
#include "tests/support/collector.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

using Changes = testing::Collector<SystemChange>;
using testing::writeTextFile;

// Waits until `kind` was reported at least `count` times.
bool waitFor(Changes& changes, SystemChange kind, long count = 1) {
  return changes.waitUntil([&](const std::vector<SystemChange>& all) {
    return std::count(all.begin(), all.end(), kind) >= count;
  });
}

struct Files {
  explicit Files(const testing::TempDir& temp) : dir(temp.path()) {
    fs::create_directories(etc);
    fs::create_directories(config);
  }
  SystemChangePaths paths() const {
    return {{locale.string(), userLocale.string(), (dir / "missing/locale.conf").string()},
            {localtime.string(), timezone.string()}};
  }
  fs::path dir, etc = dir / "etc", config = dir / "config", locale = etc / "locale.conf",
                userLocale = config / "locale.conf", localtime = etc / "localtime",
                timezone = etc / "timezone";
};

TEST(SystemChangeMonitorTest, ReportsWritesRenamesAndDeletionsByKind) {
  testing::TempDir dir;
  Files files(dir);
  writeTextFile(files.timezone, "Europe/Paris\n");
  WorkerPool pool(2);
  Changes changes;
  auto monitor = makeSystemChangeMonitor(pool, files.paths(), changes.adder());

  // A file that is not watched, then a locale file: events arrive in order, so once the locale
  // change is seen the other event has been read too.
  writeTextFile(files.etc / "hostname", "device\n");
  writeTextFile(files.locale, "LANG=de_DE.UTF-8\n");
  ASSERT_TRUE(waitFor(changes, SystemChange::kLocale));
  pool.waitUntilIdle();
  // Creating and then closing the file may be read as two batches, hence two calls.
  for (SystemChange change : changes.values()) EXPECT_EQ(change, SystemChange::kLocale);
  changes.clear();

  // /etc/localtime replaced the way tools do it: a new link renamed over the old one.
  fs::create_symlink("/usr/share/zoneinfo/Europe/Paris", files.etc / ".localtime.new");
  fs::rename(files.etc / ".localtime.new", files.localtime);
  ASSERT_TRUE(waitFor(changes, SystemChange::kTimeZone));
  fs::remove(files.timezone);
  ASSERT_TRUE(waitFor(changes, SystemChange::kTimeZone, 2));
  pool.waitUntilIdle();
  // The locale write's closing may still have been unread when the list was cleared: it comes
  // before the first time-zone change, never after it.
  const auto values = changes.values();
  const auto firstTimeZone = std::find(values.begin(), values.end(), SystemChange::kTimeZone);
  for (auto it = values.begin(); it != values.end(); ++it) {
    EXPECT_EQ(*it, it < firstTimeZone ? SystemChange::kLocale : SystemChange::kTimeZone);
  }
  // (The user's own locale.conf, rewritten: the daemon's search test.)
}

TEST(SystemChangeMonitorTest, CoalescesABurstIntoOneCallPerKind) {
  testing::TempDir dir;
  Files files(dir);
  // One worker: while the handler holds it, nothing is read, so everything written meanwhile
  // is read in one batch.
  WorkerPool pool(1);
  testing::Gate entered;
  testing::Gate release;
  Changes changes;
  auto monitor = makeSystemChangeMonitor(pool, files.paths(), [&](SystemChange change) {
    changes.add(change);
    if (changes.size() == 1) {
      entered.open();
      release.wait();
    }
  });

  // A rename from a directory that is not watched is a single event, so the first call is the
  // only one before the burst.
  fs::create_directories(dir / "staging");
  writeTextFile(dir / "staging" / "locale.conf", "LANG=C\n");
  fs::rename(dir / "staging" / "locale.conf", files.locale);
  ASSERT_TRUE(entered.wait());
  for (int i = 0; i < 20; ++i) {
    writeTextFile(files.locale, "LANG=de_DE.UTF-8 # " + std::to_string(i) + "\n");
    writeTextFile(files.timezone, "Europe/Berlin " + std::to_string(i) + "\n");
    fs::remove(files.timezone);
  }
  release.open();
  ASSERT_TRUE(changes.waitForCount(3));
  pool.waitUntilIdle();
  // The first write, then the whole burst as one batch: one call per kind.
  const auto seen = changes.values();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0], SystemChange::kLocale);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), SystemChange::kLocale), 2);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), SystemChange::kTimeZone), 1);
}

TEST(SystemChangeMonitorTest, NoCallAfterDestructionWhichWaitsForARunningCall) {
  testing::TempDir dir;
  Files files(dir);
  WorkerPool pool(2);

  // Destroyed while idle: later changes reach nobody.
  {
    Changes changes;
    makeSystemChangeMonitor(pool, files.paths(), changes.adder()).reset();
    writeTextFile(files.locale, "LANG=C\n");
    pool.waitUntilIdle();
    EXPECT_EQ(changes.size(), 0u);
  }

  // Destroyed while a call runs on another thread: the destructor returns after the call, and
  // not while it is held.
  testing::Gate entered;
  testing::Gate release;
  std::atomic<bool> callFinished{false};
  auto monitor = makeSystemChangeMonitor(pool, files.paths(), [&](SystemChange) {
    entered.open();
    release.wait();
    callFinished = true;
  });
  writeTextFile(files.localtime, "zone");
  ASSERT_TRUE(entered.wait());
  std::atomic<bool> destroyed{false};
  std::atomic<bool> finishedWhenDestroyed{false};
  std::thread destroyer([&] {
    monitor.reset();
    finishedWhenDestroyed = callFinished.load();
    destroyed = true;
  });
  EXPECT_FALSE(testing::eventually([&] { return destroyed.load(); }, 100ms))
      << "the destructor returned while a call was running";
  release.open();
  destroyer.join();
  EXPECT_TRUE(finishedWhenDestroyed);

  // A handler that destroys its own monitor does not deadlock.
  std::unique_ptr<SystemChangeMonitor> selfDestroying;
  testing::Gate destroyedItself;
  selfDestroying = makeSystemChangeMonitor(pool, files.paths(), [&](SystemChange) {
    selfDestroying.reset();
    destroyedItself.open();
  });
  writeTextFile(files.locale, "LANG=en_US.UTF-8\n");
  ASSERT_TRUE(destroyedItself.wait());
  pool.waitUntilIdle();
}

}  // namespace
}  // namespace orvex
