// An inotify descriptor read through asio on the worker pool's io_context, on a strand of its
// own: the part the daemon's file watchers share. The owner adds watches (on the strand, or before
// start()), and receives each batch of raw events read at once on the strand.
//
// The reader is shared with the read in flight, so it lives until close() has run on the strand
// and the read has been cancelled.
#pragma once

#include <sys/inotify.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/strand.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace orvex {

class WorkerPool;

class InotifyReader : public std::enable_shared_from_this<InotifyReader> {
 public:
  using EventsHandler = std::function<void(std::span<const std::uint8_t>)>;

  // `watched` and `watches` name what is watched in the logs: "cannot watch <watched>: ...",
  // "reading <watches> failed: ...".
  InotifyReader(WorkerPool& pool, std::string watched, std::string watches);

  // Makes the descriptor; false (logged) when inotify is not available.
  bool open();
  // Reads until close(), handing each batch to `handler` on the strand.
  void start(EventsHandler handler);
  // Closes the descriptor on the strand, which cancels the read.
  void close();

  // For the owner's jobs on the strand and its watches.
  asio::strand<asio::io_context::executor_type>& strand() { return strand_; }
  bool isOpen() const { return descriptor_.is_open(); }
  int nativeHandle() { return descriptor_.native_handle(); }

 private:
  void readNext();

  const std::string watched_;
  const std::string watches_;
  asio::strand<asio::io_context::executor_type> strand_;
  asio::posix::stream_descriptor descriptor_;  // owns the inotify descriptor
  EventsHandler handler_;                      // set before the first read
  alignas(inotify_event) std::array<std::uint8_t, 16 * 1024> buffer_{};
};

}  // namespace orvex
