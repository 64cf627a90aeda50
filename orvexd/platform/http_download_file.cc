#include "orvexd/platform/http_download_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "orvexd/base/text_util.h"

namespace orvex {

UniqueFd createDownloadFile(const std::string& directory, std::string& path, int& error) {
  std::string pattern =
      (directory.empty() ? std::string("/tmp") : directory) + "/orvex-download-XXXXXX";
  UniqueFd fd(mkostemp(pattern.data(), O_CLOEXEC));  // mkostemp creates the file with mode 0600
  if (!fd) {
    error = errno;
    return fd;
  }
  path = std::move(pattern);
  return fd;
}

std::optional<std::string> writeDownloadFile(const std::string& directory, std::string_view body,
                                             std::error_code& error) {
  int createError = 0;
  std::string path;
  UniqueFd fd = createDownloadFile(directory, path, createError);
  if (!fd) {
    error = std::error_code(createError, std::generic_category());
    return std::nullopt;
  }
  error = writeAll(fd.get(), body);
  if (!error) error = fd.close();
  if (error) {
    ::unlink(path.c_str());
    return std::nullopt;
  }
  return path;
}

std::error_code overwriteDownloadFile(const std::string& path, std::string_view body) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return std::error_code(errno, std::generic_category());
  return writeAll(fd.get(), body);
}

std::optional<std::string> readDownloadFile(const std::string& path, uint64_t limit) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info {};
  if (!fd || ::fstat(fd.get(), &info) != 0 || static_cast<uint64_t>(info.st_size) > limit) {
    return std::nullopt;
  }
  std::string body(static_cast<size_t>(info.st_size), '\0');
  size_t done = 0;
  while (done < body.size()) {
    const ssize_t got = ::read(fd.get(), body.data() + done, body.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    done += static_cast<size_t>(got);
  }
  return body;
}

}  // namespace orvex
