// Owns a file descriptor and closes it exactly once.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace orvex {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      (void)close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { (void)close(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  // Gives up ownership: the caller closes the descriptor.
  int release() { return std::exchange(fd_, -1); }

  // Closes now and reports what close() said, which can be a delayed write error; closing an
  // empty one is no error.
  std::error_code close() {
    if (fd_ < 0) return {};
    if (::close(std::exchange(fd_, -1)) == 0) return {};
    return std::error_code(errno, std::generic_category());
  }

 private:
  int fd_;
};

}  // namespace orvex
