#include "orvexd/platform/system_change_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "orvexd/platform/worker_pool.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Generous: only a watchdog against a monitor that never reports.
constexpr auto kWatchdog = 30s;

// Records handler calls and lets a test wait for them.
class Recorder {
 public:
  SystemChangeMonitor::Handler handler() {
    return [this](SystemChange change) {
      std::lock_guard lock(mutex_);
      changes_.push_back(change);
      changed_.notify_all();
    };
  }
  // Waits until `change` has been seen at least `count` times; false on the watchdog.
  bool waitFor(SystemChange change, int count = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kWatchdog, [&] {
      return std::count(changes_.begin(), changes_.end(), change) >= count;
    });
  }
  std::vector<SystemChange> changes() {
    std::lock_guard lock(mutex_);
    return changes_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    changes_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<SystemChange> changes_;
};

// A one-way gate between threads.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, kWatchdog, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

struct Files {
  explicit Files(const testing::TempDir& dir)
      : etc(dir / "etc"),
        config(dir / "config"),
        locale(etc / "locale.conf"),
        userLocale(config / "locale.conf"),
        localtime(etc / "localtime"),
        timezone(etc / "timezone") {
    fs::create_directories(etc);
    fs::create_directories(config);
  }
  SystemChangePaths paths(const testing::TempDir& dir) const {
    SystemChangePaths result;
    result.localeFiles = {locale.string(), userLocale.string(),
                          (dir / "missing" / "locale.conf").string()};
    result.timeZoneFiles = {localtime.string(), timezone.string()};
    return result;
  }
  fs::path etc, config, locale, userLocale, localtime, timezone;
};

TEST(SystemChangeMonitorTest, ReportsWritesRenamesAndDeletionsByKind) {
  testing::TempDir dir;
  Files files(dir);
  writeFile(files.timezone, "Europe/Paris\n");
  WorkerPool pool(2);
  Recorder recorder;
  auto monitor = makeSystemChangeMonitor(pool, files.paths(dir), recorder.handler());

  // A file that is not watched, then a locale file: events arrive in order, so once the locale
  // change is seen the other event has been read too.
  writeFile(files.etc / "hostname", "device\n");
  writeFile(files.locale, "LANG=de_DE.UTF-8\n");
  ASSERT_TRUE(recorder.waitFor(SystemChange::kLocale));
  pool.waitUntilIdle();
  // Creating and then closing the file may be read as two batches, hence two calls.
  for (SystemChange change : recorder.changes()) EXPECT_EQ(change, SystemChange::kLocale);
  recorder.clear();

  // /etc/localtime replaced the way tools do it: a new link renamed over the old one.
  fs::create_symlink("/usr/share/zoneinfo/Europe/Paris", files.etc / ".localtime.new");
  fs::rename(files.etc / ".localtime.new", files.localtime);
  ASSERT_TRUE(recorder.waitFor(SystemChange::kTimeZone));
  fs::remove(files.timezone);
  ASSERT_TRUE(recorder.waitFor(SystemChange::kTimeZone, 2));
  // The user's file, in a directory of its own.
  writeFile(dir / "locale.tmp", "LANG=fr_FR.UTF-8\n");
  fs::rename(dir / "locale.tmp", files.userLocale);
  ASSERT_TRUE(recorder.waitFor(SystemChange::kLocale));
  pool.waitUntilIdle();
  for (SystemChange change : recorder.changes()) {
    EXPECT_TRUE(change == SystemChange::kLocale || change == SystemChange::kTimeZone);
  }
}

TEST(SystemChangeMonitorTest, CoalescesABurstIntoOneCallPerKind) {
  testing::TempDir dir;
  Files files(dir);
  // One worker: while the handler holds it, nothing is read, so everything written meanwhile
  // is read in one batch.
  WorkerPool pool(1);
  Gate entered;
  Gate release;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<SystemChange> changes;
  auto monitor = makeSystemChangeMonitor(pool, files.paths(dir), [&](SystemChange change) {
    bool first = false;
    {
      std::lock_guard lock(mutex);
      first = changes.empty();
      changes.push_back(change);
      changed.notify_all();
    }
    if (first) {
      entered.open();
      release.wait();
    }
  });

  // A rename from a directory that is not watched is a single event, so the first call is the
  // only one before the burst.
  fs::create_directories(dir / "staging");
  writeFile(dir / "staging" / "locale.conf", "LANG=C\n");
  fs::rename(dir / "staging" / "locale.conf", files.locale);
  ASSERT_TRUE(entered.wait());
  for (int i = 0; i < 20; ++i) {
    writeFile(files.locale, "LANG=de_DE.UTF-8 # " + std::to_string(i) + "\n");
    writeFile(files.timezone, "Europe/Berlin " + std::to_string(i) + "\n");
    fs::remove(files.timezone);
  }
  release.open();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kWatchdog, [&] { return changes.size() >= 3; }));
  }
  pool.waitUntilIdle();
  std::lock_guard lock(mutex);
  // The first write, then the whole burst as one batch: one call per kind.
  ASSERT_EQ(changes.size(), 3u);
  EXPECT_EQ(changes[0], SystemChange::kLocale);
  EXPECT_EQ(std::count(changes.begin(), changes.end(), SystemChange::kLocale), 2);
  EXPECT_EQ(std::count(changes.begin(), changes.end(), SystemChange::kTimeZone), 1);
}

TEST(SystemChangeMonitorTest, NoCallAfterDestructionWhichWaitsForARunningCall) {
  testing::TempDir dir;
  Files files(dir);
  WorkerPool pool(2);

  // Destroyed while idle: later changes reach nobody.
  {
    Recorder recorder;
    makeSystemChangeMonitor(pool, files.paths(dir), recorder.handler()).reset();
    writeFile(files.locale, "LANG=C\n");
    pool.waitUntilIdle();
    EXPECT_TRUE(recorder.changes().empty());
  }

  // Destroyed while a call runs on another thread: the destructor returns after the call.
  Gate entered;
  Gate release;
  std::atomic<bool> callFinished{false};
  auto monitor = makeSystemChangeMonitor(pool, files.paths(dir), [&](SystemChange) {
    entered.open();
    release.wait();
    callFinished = true;
  });
  writeFile(files.localtime, "zone");
  ASSERT_TRUE(entered.wait());
  std::atomic<bool> finishedWhenDestroyed{false};
  std::thread destroyer([&] {
    monitor.reset();
    finishedWhenDestroyed = callFinished.load();
  });
  std::this_thread::sleep_for(50ms);  // lets the destroyer reach the wait; not an assertion
  release.open();
  destroyer.join();
  EXPECT_TRUE(finishedWhenDestroyed);

  // A handler that destroys its own monitor does not deadlock.
  std::unique_ptr<SystemChangeMonitor> selfDestroying;
  Gate destroyed;
  selfDestroying = makeSystemChangeMonitor(pool, files.paths(dir), [&](SystemChange) {
    selfDestroying.reset();
    destroyed.open();
  });
  writeFile(files.locale, "LANG=en_US.UTF-8\n");
  ASSERT_TRUE(destroyed.wait());
  pool.waitUntilIdle();
}

}  // namespace
}  // namespace orvex
