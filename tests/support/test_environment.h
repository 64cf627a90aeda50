// Shared pieces for the daemon's tests: temporary directories, scoped environment variables,
// and a platform (worker pool + virtual clock) whose timers the test drives.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "orvexd/platform/virtual_clock.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex::testing {

// The whole content of a text file; "" when it cannot be read.
std::string readTextFile(const std::filesystem::path& path);
// The bytes of a file; none when it cannot be read.
std::vector<uint8_t> readBytes(const std::filesystem::path& path);
// Replaces the content of a file (creating it).
void writeBytes(const std::filesystem::path& path, std::span<const uint8_t> bytes);
void writeTextFile(const std::filesystem::path& path, std::string_view text);

// A daemon counter of this process (OrvexDiagnosticDataReporter), 0 when unset.
int64_t counterValue(std::string_view key);

// Polls `condition` every 2 ms until it holds or `timeout` passes (real time: for waits on
// other processes, never for the daemon's own timers).
template <typename F>
bool eventually(F condition, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// A one-way gate between threads: wait() blocks until open() (false after `watchdog`).
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  bool wait(std::chrono::milliseconds watchdog = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, watchdog, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Sets (or, with nullopt, unsets) an environment variable and restores it on destruction.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// A worker pool and a virtual clock wired together: advancing the clock lets the pool finish
// what each firing posted before the next deadline.
struct VirtualPlatform {
  explicit VirtualPlatform(std::size_t threads = 4);
  ~VirtualPlatform();
  void advance(Duration step) { clock->advance(step); }
  void settle() { pool->waitUntilIdle(); }

  std::shared_ptr<WorkerPool> pool;
  std::shared_ptr<VirtualClock> clock;
};

}  // namespace orvex::testing
