#include "orvexd/platform/installed_applications_watcher.h"

#include <sys/inotify.h>

#include <asio/post.hpp>
#include <atomic>
#include <cerrno>
#include <map>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/inotify_reader.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

// Files written, renamed, created or removed in a directory, and the directory itself going.
constexpr std::uint32_t kWatchMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                     IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

const OrvexLog& watcherLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

}  // namespace

// `watches` belongs to the reader's strand; `stopped` and `queued` are atomic.
struct InstalledApplicationsWatcher::State : std::enable_shared_from_this<State> {
  State(WorkerPool& workerPool, Handler h)
      : pool(workerPool),
        reader(std::make_shared<InotifyReader>(workerPool, "the installed applications",
                                               "the metainfo watches")),
        handler(std::move(h)) {}

  // Whatever the events say, the owner reads the whole set again: they need no decoding.
  void notify() {
    if (stopped || queued.exchange(true)) return;
    pool.post([self = shared_from_this()] {
      self->queued = false;  // a change seen from here on is told again
      if (self->stopped) return;
      runLoggingFailure(watcherLog(), "the installed applications handler", self->handler);
    });
  }

  // On the strand.
  void replaceWatches(const std::vector<std::filesystem::path>& directories) {
    if (!reader->isOpen()) return;
    std::map<int, std::filesystem::path> next;
    for (const auto& directory : directories) {
      const int wd = inotify_add_watch(reader->nativeHandle(), directory.c_str(), kWatchMask);
      if (wd >= 0) {
        next.emplace(wd, directory);
      } else if (errno != ENOENT && errno != ENOTDIR) {
        watcherLog().error("cannot watch %@: %@", directory.string(),
                           std::error_code(errno, std::system_category()).message());
      }
    }
    for (const auto& [wd, directory] : watches) {
      if (!next.contains(wd)) (void)inotify_rm_watch(reader->nativeHandle(), wd);
    }
    watches = std::move(next);
  }

  WorkerPool& pool;
  const std::shared_ptr<InotifyReader> reader;
  std::map<int, std::filesystem::path> watches;
  const Handler handler;
  std::atomic<bool> queued{false};
  std::atomic<bool> stopped{false};
};

InstalledApplicationsWatcher::InstalledApplicationsWatcher(WorkerPool& pool, Handler handler)
    : state_(std::make_shared<State>(pool, std::move(handler))) {
  if (!state_->reader->open()) return;
  state_->reader->start([weak = std::weak_ptr<State>(state_)](std::span<const std::uint8_t>) {
    if (auto state = weak.lock()) state->notify();
  });
}

InstalledApplicationsWatcher::~InstalledApplicationsWatcher() {
  state_->stopped = true;
  state_->reader->close();
}

void InstalledApplicationsWatcher::watch(std::vector<std::filesystem::path> directories) {
  asio::post(state_->reader->strand(), [state = state_, directories = std::move(directories)] {
    state->replaceWatches(directories);
  });
}

}  // namespace orvex
