// Watches the locale and time-zone files with inotify.
//
// The watches are on the parent directories, not on the files: /etc/localtime is a symbolic
// link that tools replace by renaming a new link over it, and editors save by rename too, so a
// watch on the file itself would see the old inode go and then nothing. Events are matched by
// file name.
//
// The inotify descriptor is read through asio on the worker pool's io_context, on a strand of
// its own (InotifyReader). Each batch of events read at once gives at most one handler call per
// kind of change, and a kind whose call is still queued gets no second one: the handler is told
// "the locale (or the zone) may have changed, look again", never which file changed.
//
// The monitor must be destroyed before the pool. After the destructor returns the handler is
// not called again; a call in progress on another thread is waited for.
#include "orvexd/platform/system_change_monitor.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/inotify_reader.h"
#include "orvexd/platform/locale_provider.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

constexpr std::uint32_t kWatchMask =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ATTRIB | IN_ONLYDIR;

const OrvexLog& monitorLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

std::string errnoMessage(int error) {
  return std::error_code(error, std::system_category()).message();
}

// The names watched in one directory, by kind.
struct DirectoryWatch {
  std::string directory;
  std::set<std::string, std::less<>> localeNames;
  std::set<std::string, std::less<>> timeZoneNames;
};

// The monitor's state, shared with the handler calls posted to the pool. The reader's descriptor
// and `watches` belong to the reader's strand; `stopped` and `activeCalls` to `mutex`.
struct MonitorState : std::enable_shared_from_this<MonitorState> {
  MonitorState(WorkerPool& workerPool, SystemChangeMonitor::Handler h)
      : pool(workerPool),
        reader(std::make_shared<InotifyReader>(workerPool, "the locale and time-zone files",
                                               "the locale and time-zone watches")),
        handler(std::move(h)) {}

  void start() {
    reader->start([weak = weak_from_this()](std::span<const std::uint8_t> events) {
      if (auto self = weak.lock()) self->handleEvents(events);
    });
  }

  void handleEvents(std::span<const std::uint8_t> events) {
    const std::size_t size = events.size();
    bool locale = false;
    bool timeZone = false;
    std::size_t offset = 0;
    while (offset + sizeof(inotify_event) <= size) {
      inotify_event event;
      std::memcpy(&event, events.data() + offset, sizeof event);
      const std::size_t end = offset + sizeof(inotify_event) + event.len;
      if (end > size) break;  // the kernel never splits an event; stop rather than misread
      const char* namePointer =
          reinterpret_cast<const char*>(events.data()) + offset + sizeof(inotify_event);
      const std::string_view name(namePointer, strnlen(namePointer, event.len));
      offset = end;

      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        // Events were lost: any of the files may have changed.
        locale = timeZone = true;
        continue;
      }
      const auto watch = watches.find(event.wd);
      if (watch == watches.end()) continue;
      if ((event.mask & IN_IGNORED) != 0) {
        monitorLog().log("stopped watching %@ (the directory went away)", watch->second.directory);
        watches.erase(watch);
        continue;
      }
      if (watch->second.localeNames.contains(name)) locale = true;
      if (watch->second.timeZoneNames.contains(name)) timeZone = true;
    }
    if (locale) notify(SystemChange::kLocale);
    if (timeZone) notify(SystemChange::kTimeZone);
  }

  void notify(SystemChange change) {
    std::atomic<bool>& queued = change == SystemChange::kLocale ? localeQueued : timeZoneQueued;
    if (queued.exchange(true)) return;
    pool.post([self = shared_from_this(), change, &queued] {
      // Cleared before the call, so that a change seen while the handler runs is told again.
      queued = false;
      self->deliver(change);
    });
  }

  void deliver(SystemChange change) {
    if (!handler) return;
    {
      std::lock_guard lock(mutex);
      if (stopped) return;
      ++activeCalls;
    }
    const MonitorState* const outer = tDelivering;
    tDelivering = this;
    runLoggingFailure(monitorLog(), "the system change handler", [&] { handler(change); });
    tDelivering = outer;
    std::lock_guard lock(mutex);
    if (--activeCalls == 0) idle.notify_all();
  }

  // Stops handler calls and closes the descriptor on the strand. Waits for calls in progress
  // unless it is called from one of them.
  void stop() {
    std::unique_lock lock(mutex);
    stopped = true;
    reader->close();
    const int own = tDelivering == this ? 1 : 0;
    idle.wait(lock, [&] { return activeCalls == own; });
  }

  static thread_local const MonitorState* tDelivering;

  WorkerPool& pool;
  const std::shared_ptr<InotifyReader> reader;
  std::map<int, DirectoryWatch> watches;  // by watch descriptor
  const SystemChangeMonitor::Handler handler;
  std::atomic<bool> localeQueued{false};
  std::atomic<bool> timeZoneQueued{false};

  std::mutex mutex;
  std::condition_variable idle;
  bool stopped = false;
  int activeCalls = 0;
};

thread_local const MonitorState* MonitorState::tDelivering = nullptr;

class InotifySystemChangeMonitor final : public SystemChangeMonitor {
 public:
  InotifySystemChangeMonitor(WorkerPool& pool, const SystemChangePaths& paths, Handler handler)
      : state_(std::make_shared<MonitorState>(pool, std::move(handler))) {
    if (!state_->reader->open()) return;
    for (const auto& file : paths.localeFiles) addWatch(file, SystemChange::kLocale);
    for (const auto& file : paths.timeZoneFiles) addWatch(file, SystemChange::kTimeZone);
    if (state_->watches.empty()) {
      monitorLog().log("none of the locale and time-zone files can be watched");
      return;
    }
    state_->start();
  }

  ~InotifySystemChangeMonitor() override { state_->stop(); }

 private:
  // Runs before the first read, so the strand's fields are still the constructor's.
  void addWatch(const std::string& file, SystemChange change) {
    const std::filesystem::path path(file);
    const std::string name = path.filename().string();
    if (name.empty()) {
      monitorLog().error("cannot watch \"%@\": it names no file", file);
      return;
    }
    std::filesystem::path directory = path.parent_path();
    if (directory.empty()) directory = ".";
    const int wd = inotify_add_watch(state_->reader->nativeHandle(), directory.c_str(), kWatchMask);
    if (wd < 0) {
      const int error = errno;
      if (error == ENOENT || error == ENOTDIR) {
        monitorLog().info("not watching %@: its directory does not exist", file);
      } else {
        monitorLog().error("cannot watch %@: %@", file, errnoMessage(error));
      }
      return;
    }
    DirectoryWatch& watch = state_->watches[wd];  // one directory named twice gives one wd
    if (watch.directory.empty()) watch.directory = directory.string();
    (change == SystemChange::kLocale ? watch.localeNames : watch.timeZoneNames).insert(name);
  }

  std::shared_ptr<MonitorState> state_;
};

}  // namespace

SystemChangePaths SystemChangePaths::standard(const std::string& xdgConfigHome) {
  SystemChangePaths paths;
  paths.localeFiles = userLocaleFiles(xdgConfigHome);
  paths.timeZoneFiles = {"/etc/localtime", "/etc/timezone"};
  return paths;
}

std::unique_ptr<SystemChangeMonitor> makeSystemChangeMonitor(WorkerPool& pool,
                                                             SystemChangePaths paths,
                                                             SystemChangeMonitor::Handler handler) {
  return std::make_unique<InotifySystemChangeMonitor>(pool, paths, std::move(handler));
}

}  // namespace orvex
