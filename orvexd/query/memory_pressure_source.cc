// A PSI trigger is a file descriptor of /proc/pressure/memory to which the trigger text was
// written; the kernel then reports each crossing as an urgent-data (POLLPRI) event on it. The
// descriptor is waited on through asio on the worker pool's io_context, on a strand of its own.
#include "orvexd/query/memory_pressure_source.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <mutex>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {
namespace {

const OrvexLog& pressureLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

std::string errnoMessage(int error) {
  return std::error_code(error, std::system_category()).message();
}

// Whether the descriptor can report urgent data through epoll. Plain files cannot (epoll refuses
// them), and asio would then report them ready at once, again and again.
bool supportsUrgentEvents(int fd) {
  const UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  if (!epoll) return false;
  epoll_event event{};
  event.events = EPOLLPRI;
  return ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

struct PsiState : std::enable_shared_from_this<PsiState> {
  PsiState(WorkerPool& pool, std::function<void()> h)
      : strand(asio::make_strand(pool.ioContext())), descriptor(strand), handler(std::move(h)) {}

  void waitNext() {
    descriptor.async_wait(
        asio::posix::stream_descriptor::wait_error,
        [self = shared_from_this()](const std::error_code& error) {
          if (error) {
            if (error != asio::error::operation_aborted && error != asio::error::bad_descriptor) {
              pressureLog().error("waiting for memory pressure failed: %@", error.message());
            }
            return;
          }
          {
            std::lock_guard lock(self->mutex);
            if (self->stopped) return;
            self->handler();
          }
          self->waitNext();
        });
  }

  asio::strand<asio::io_context::executor_type> strand;
  asio::posix::stream_descriptor descriptor;  // belongs to the strand
  std::mutex mutex;
  bool stopped = false;  // guarded by `mutex`, as is each call of the handler
  std::function<void()> handler;
};

class PsiMemoryPressureSource final : public MemoryPressureSource {
 public:
  explicit PsiMemoryPressureSource(std::shared_ptr<PsiState> state) : state_(std::move(state)) {}
  ~PsiMemoryPressureSource() override {
    {
      std::lock_guard lock(state_->mutex);
      state_->stopped = true;
    }
    asio::post(state_->strand, [state = state_] {
      std::error_code ignored;
      state->descriptor.close(ignored);  // ends the wait with operation_aborted
    });
  }

 private:
  std::shared_ptr<PsiState> state_;
};

}  // namespace

std::unique_ptr<MemoryPressureSource> makePsiMemoryPressureSource(
    WorkerPool& pool, std::function<void()> onCriticalPressure, const PsiTrigger& trigger) {
  UniqueFd fd(::open(trigger.path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    pressureLog().debug("no memory pressure reports: cannot open %@: %@", trigger.path,
                        errnoMessage(errno));
    return nullptr;
  }
  // The trigger is written with its terminating NUL, as the kernel expects.
  const std::string text = trigger.trigger + '\0';
  if (const std::error_code error = writeAll(fd.get(), text)) {
    pressureLog().debug("no memory pressure reports: %@ refuses the trigger \"%@\": %@",
                        trigger.path, trigger.trigger, error.message());
    return nullptr;
  }
  if (!supportsUrgentEvents(fd.get())) {
    pressureLog().debug("no memory pressure reports: %@ cannot be polled", trigger.path);
    return nullptr;
  }

  auto state = std::make_shared<PsiState>(pool, std::move(onCriticalPressure));
  // The asio descriptor owns a duplicate from here on (and closes it); the trigger belongs to
  // the open file that both descriptors share, so it lives as long as that duplicate.
  const int duplicate = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) {
    pressureLog().debug("no memory pressure reports: %@", errnoMessage(errno));
    return nullptr;
  }
  std::error_code error;
  state->descriptor.assign(duplicate, error);
  if (error) {
    UniqueFd unused(duplicate);
    pressureLog().debug("no memory pressure reports: %@", error.message());
    return nullptr;
  }
  asio::post(state->strand, [state] { state->waitNext(); });
  return std::make_unique<PsiMemoryPressureSource>(std::move(state));
}

MemoryPressureSourceFactory psiMemoryPressureSourceFactory(WorkerPool& pool) {
  return [&pool](std::function<void()> onCriticalPressure) {
    return makePsiMemoryPressureSource(pool, std::move(onCriticalPressure));
  };
}

}  // namespace orvex
