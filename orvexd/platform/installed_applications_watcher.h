// Tells when the installed applications may have changed: inotify watches on the directories
// findMetainfoLocations() names. It reads nothing itself and wakes nobody while the directories
// stay as they are; a batch of events gives one call of the handler (and none while one is still
// queued), which the owner debounces further and answers by reading the set again and handing
// the new directory list to watch().
//
// The descriptor is read through asio on the worker pool's io_context, on a strand of its own.
// The handler runs on the pool; it must hold its owner weakly, since a call may still be queued
// when the watcher is destroyed. No call starts after the destructor has returned (one that
// started before may still be running).
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace orvex {

class WorkerPool;

class InstalledApplicationsWatcher {
 public:
  using Handler = std::function<void()>;

  InstalledApplicationsWatcher(WorkerPool& pool, Handler handler);
  ~InstalledApplicationsWatcher();
  InstalledApplicationsWatcher(const InstalledApplicationsWatcher&) = delete;
  InstalledApplicationsWatcher& operator=(const InstalledApplicationsWatcher&) = delete;

  // Watches exactly `directories` from now on (missing ones are skipped). Any thread.
  void watch(std::vector<std::filesystem::path> directories);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace orvex
