#include "orvexd/platform/signal_source.h"

#include <sys/signalfd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/read.hpp>
#include <asio/strand.hpp>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

struct SignalSource::Impl : std::enable_shared_from_this<Impl> {
  Impl(WorkerPool& pool, std::function<void()> h)
      : descriptor(pool.ioContext()), handler(std::move(h)) {}

  void readNext() {
    asio::async_read(descriptor, asio::buffer(&info, sizeof info),
                     [weak = weak_from_this()](const std::error_code& error, std::size_t) {
                       auto self = weak.lock();
                       if (!self || error) return;
                       WorkerPool::runCounted(self->handler);
                       self->readNext();
                     });
  }

  asio::posix::stream_descriptor descriptor;  // owns the signalfd
  std::function<void()> handler;
  signalfd_siginfo info{};
};

void SignalSource::blockSignals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalSource::SignalSource(WorkerPool& pool, int signal, std::function<void()> handler)
    : impl_(std::make_shared<Impl>(pool, std::move(handler))) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  const int fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) {
    // Without the source the signal would stay blocked for ever; let its default action end
    // the process instead.
    OrvexLogForCategory(kOrvexLogGeneral)
        .error("cannot watch signal %d: %@", signal,
               std::error_code(errno, std::system_category()).message());
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    return;
  }
  impl_->descriptor.assign(fd);
  impl_->readNext();
}

SignalSource::~SignalSource() {
  // The descriptor belongs to the pool's threads while a read is outstanding: close it there.
  asio::post(impl_->descriptor.get_executor(), [impl = impl_] {
    std::error_code ignored;
    impl->descriptor.close(ignored);
  });
}

bool SignalSource::isValid() const { return impl_->descriptor.is_open(); }

}  // namespace orvex
