#include "orvexd/platform/installed_applications_watcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <set>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

// Files written, renamed, created or removed in a directory, and the directory itself going.
constexpr std::uint32_t kWatchMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                     IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

const OrvexLog& watcherLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

}  // namespace

// The descriptor and `watches` belong to the strand; `stopped` and `queued` are atomic.
struct InstalledApplicationsWatcher::State : std::enable_shared_from_this<State> {
  State(WorkerPool& workerPool, Handler h)
      : pool(workerPool),
        strand(asio::make_strand(workerPool.ioContext())),
        descriptor(strand),
        handler(std::move(h)) {}

  void readNext() {
    descriptor.async_read_some(
        asio::buffer(buffer), [self = shared_from_this()](const std::error_code& error, size_t) {
          if (error) {
            if (error != asio::error::operation_aborted && error != asio::error::bad_descriptor) {
              watcherLog().error("reading the metainfo watches failed: %@", error.message());
            }
            return;
          }
          // Whatever happened, the owner reads the whole set again: no need to decode events.
          self->notify();
          self->readNext();
        });
  }

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
    if (!descriptor.is_open()) return;
    std::map<int, std::filesystem::path> next;
    for (const auto& directory : directories) {
      const int wd = inotify_add_watch(descriptor.native_handle(), directory.c_str(), kWatchMask);
      if (wd >= 0) {
        next.emplace(wd, directory);
      } else if (errno != ENOENT && errno != ENOTDIR) {
        watcherLog().error("cannot watch %@: %@", directory.string(),
                           std::error_code(errno, std::system_category()).message());
      }
    }
    for (const auto& [wd, directory] : watches) {
      if (!next.contains(wd)) (void)inotify_rm_watch(descriptor.native_handle(), wd);
    }
    watches = std::move(next);
  }

  WorkerPool& pool;
  asio::strand<asio::io_context::executor_type> strand;
  asio::posix::stream_descriptor descriptor;  // owns the inotify descriptor
  std::map<int, std::filesystem::path> watches;
  alignas(inotify_event) std::array<std::uint8_t, 8 * 1024> buffer{};
  const Handler handler;
  std::atomic<bool> queued{false};
  std::atomic<bool> stopped{false};
};

InstalledApplicationsWatcher::InstalledApplicationsWatcher(WorkerPool& pool, Handler handler)
    : state_(std::make_shared<State>(pool, std::move(handler))) {
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  std::error_code error;
  if (fd >= 0) state_->descriptor.assign(fd, error);
  if (fd < 0 || error) {
    if (fd >= 0) ::close(fd);
    watcherLog().error(
        "cannot watch the installed applications: %@",
        fd < 0 ? std::error_code(errno, std::system_category()).message() : error.message());
    return;
  }
  state_->readNext();
}

InstalledApplicationsWatcher::~InstalledApplicationsWatcher() {
  state_->stopped = true;
  asio::post(state_->strand, [state = state_] {
    std::error_code ignored;
    state->descriptor.close(ignored);
  });
}

void InstalledApplicationsWatcher::watch(std::vector<std::filesystem::path> directories) {
  asio::post(state_->strand, [state = state_, directories = std::move(directories)] {
    state->replaceWatches(directories);
  });
}

}  // namespace orvex
