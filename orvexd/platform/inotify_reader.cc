#include "orvexd/platform/inotify_reader.h"

#include <unistd.h>

#include <asio/post.hpp>
#include <cerrno>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& readerLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

}  // namespace

InotifyReader::InotifyReader(WorkerPool& pool, std::string watched, std::string watches)
    : watched_(std::move(watched)),
      watches_(std::move(watches)),
      strand_(asio::make_strand(pool.ioContext())),
      descriptor_(strand_) {}

bool InotifyReader::open() {
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    readerLog().error("cannot watch %@: %@", watched_,
                      std::error_code(errno, std::system_category()).message());
    return false;
  }
  std::error_code error;
  descriptor_.assign(fd, error);
  if (error) {
    ::close(fd);
    readerLog().error("cannot watch %@: %@", watched_, error.message());
    return false;
  }
  return true;
}

void InotifyReader::start(EventsHandler handler) {
  handler_ = std::move(handler);
  readNext();
}

void InotifyReader::close() {
  asio::post(strand_, [self = shared_from_this()] {
    std::error_code ignored;
    self->descriptor_.close(ignored);
  });
}

void InotifyReader::readNext() {
  descriptor_.async_read_some(
      asio::buffer(buffer_),
      [self = shared_from_this()](const std::error_code& error, std::size_t size) {
        if (error) {
          if (error != asio::error::operation_aborted && error != asio::error::bad_descriptor) {
            readerLog().error("reading %@ failed: %@", self->watches_, error.message());
          }
          return;
        }
        self->handler_(std::span<const std::uint8_t>(self->buffer_.data(), size));
        self->readNext();
      });
}

}  // namespace orvex
