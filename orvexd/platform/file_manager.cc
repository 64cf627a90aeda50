#include "orvexd/platform/file_manager.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDirectoryName = "com.zelmor.orvexd";

std::error_code lastError() { return std::error_code(errno, std::generic_category()); }

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// A directory named by the environment counts only when it is absolute.
std::optional<fs::path> absoluteOrNothing(const std::string& value) {
  if (value.empty() || value.front() != '/') return std::nullopt;
  return fs::path(value);
}

const OrvexLog& fileLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

fs::path withoutTrailingSeparator(const fs::path& path) {
  fs::path normal = path.lexically_normal();
  return normal.has_filename() || !normal.has_relative_path() ? normal : normal.parent_path();
}

// Whether `path` is `root` or lies inside it, by their names alone.
bool isWithin(const fs::path& path, const fs::path& root) {
  const fs::path relative =
      withoutTrailingSeparator(path).lexically_relative(withoutTrailingSeparator(root));
  return !relative.empty() && *relative.begin() != "..";
}

std::error_code logDirectoryError(const fs::path& directory, std::error_code error) {
  fileLog().error("cannot create directory %@: %@", directory.string(), error.message());
  return error;
}

// Makes `directory`, whose parent exists, a private directory: created if missing, refused if
// a symbolic link stands in its place, and left with mode 0700 whatever the umask was or what
// mode it was found with. The mode is set through a descriptor opened without following links,
// so a link swapped in meanwhile is refused rather than its target changed.
std::error_code makePrivateDirectory(const fs::path& directory) {
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return logDirectoryError(directory, lastError());
  }
  UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) {
    const std::error_code error = lastError();
    struct stat link {};
    if (::lstat(directory.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
      fileLog().error("refusing the symbolic link %@ where a directory should be",
                      directory.string());
      return std::make_error_code(std::errc::too_many_symbolic_link_levels);
    }
    if (error == std::errc::not_a_directory) return error;
    return logDirectoryError(directory, error);
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) return logDirectoryError(directory, lastError());
  if ((info.st_mode & 07777) != 0700 && ::fchmod(fd.get(), 0700) != 0) {
    return logDirectoryError(directory, lastError());
  }
  return {};
}

class FileManagerCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "orvex.file"; }
  std::string message(int value) const override {
    switch (static_cast<FileManagerError>(value)) {
      case FileManagerError::kNotRegularFile:
        return "not a regular file";
    }
    return "unknown file error";
  }
};

}  // namespace

const std::error_category& fileManagerCategory() {
  static const FileManagerCategory category;
  return category;
}

std::error_code make_error_code(FileManagerError error) {
  return std::error_code(static_cast<int>(error), fileManagerCategory());
}

DirectoryEnvironment DirectoryEnvironment::fromProcess() {
  DirectoryEnvironment environment{environmentValue("HOME"), environmentValue("XDG_CACHE_HOME"),
                                   environmentValue("XDG_CONFIG_HOME"), environmentValue("TMPDIR")};
  if (environment.home.empty()) {
    // Without HOME, the account database names the home directory.
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 16384));
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
      environment.home = found->pw_dir;
    }
  }
  return environment;
}

FileManager::FileManager(DirectoryEnvironment environment) : environment_(std::move(environment)) {}

std::filesystem::path FileManager::cacheDirectory() const {
  if (auto base = absoluteOrNothing(environment_.xdgCacheHome)) return *base / kDirectoryName;
  // With no usable home either, the temporary directory is the only place left.
  const auto home = absoluteOrNothing(environment_.home).value_or(temporaryDirectory());
  return home / ".cache" / kDirectoryName;
}

std::filesystem::path FileManager::configDirectory() const {
  if (auto base = absoluteOrNothing(environment_.xdgConfigHome)) return *base / kDirectoryName;
  const auto home = absoluteOrNothing(environment_.home).value_or(temporaryDirectory());
  return home / ".config" / kDirectoryName;
}

std::filesystem::path FileManager::temporaryDirectory() const {
  return absoluteOrNothing(environment_.tmpdir).value_or(fs::path("/tmp"));
}

bool FileManager::isPrivate(const std::filesystem::path& directory) const {
  return isWithin(directory, cacheDirectory()) || isWithin(directory, configDirectory());
}

std::error_code FileManager::ensureDirectory(const std::filesystem::path& directory,
                                             mode_t mode) const {
  if (directory.empty()) return std::make_error_code(std::errc::invalid_argument);
  fs::path prefix;
  for (const auto& component : directory.lexically_normal()) {
    prefix /= component;
    if (component.empty()) continue;  // the trailing separator of "a/b/"
    if (isPrivate(prefix)) {
      if (auto error = makePrivateDirectory(prefix)) return error;
      continue;
    }
    if (::mkdir(prefix.c_str(), mode) == 0) {
      // mkdir() takes the umask off; what the caller asked for is what it gets.
      if (::chmod(prefix.c_str(), mode) == 0) continue;
      return logDirectoryError(prefix, lastError());
    }
    const int mkdirError = errno;
    struct stat info {};
    if (::stat(prefix.c_str(), &info) == 0) {
      if (S_ISDIR(info.st_mode)) continue;
      return std::make_error_code(std::errc::not_a_directory);
    }
    return logDirectoryError(prefix, std::error_code(mkdirError, std::generic_category()));
  }
  return {};
}

std::error_code FileManager::ensurePrivateDirectory(const std::filesystem::path& directory) const {
  const fs::path normal = withoutTrailingSeparator(directory);
  if (!normal.has_filename()) return std::make_error_code(std::errc::invalid_argument);
  if (normal.has_parent_path()) {
    if (auto error = ensureDirectory(normal.parent_path())) return error;
  }
  return makePrivateDirectory(normal);
}

std::error_code FileManager::writeFileAtomically(const std::filesystem::path& file,
                                                 std::span<const std::uint8_t> bytes,
                                                 mode_t mode) const {
  if (file.filename().empty()) return std::make_error_code(std::errc::invalid_argument);
  const fs::path directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
  std::string temporary = (directory / ("." + file.filename().string() + ".XXXXXX")).string();

  const auto failed = [&](const char* step, std::error_code error) {
    fileLog().error("cannot write %@: %@ failed: %@", file.string(), step, error.message());
    return error;
  };
  struct stat existing {};
  if (::lstat(file.c_str(), &existing) == 0 && S_ISLNK(existing.st_mode)) {
    fileLog().error("not writing %@: it is a symbolic link", file.string());
    return std::make_error_code(std::errc::too_many_symbolic_link_levels);
  }

  UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd.valid()) return failed("creating a temporary file", lastError());

  // From here on the temporary file goes away unless it has been renamed into place.
  bool renamed = false;
  struct TemporaryRemover {
    const std::string& path;
    const bool& renamed;
    ~TemporaryRemover() {
      if (!renamed) ::unlink(path.c_str());
    }
  } remover{temporary, renamed};

  if (auto error = writeAll(fd.get(), bytes)) return failed("write", error);
  if (::fchmod(fd.get(), mode) != 0) return failed("fchmod", lastError());
  if (::fsync(fd.get()) != 0) return failed("fsync", lastError());
  if (auto error = fd.close()) return failed("close", error);
  if (::rename(temporary.c_str(), file.c_str()) != 0) return failed("rename", lastError());
  renamed = true;

  // The rename itself is durable once the directory is flushed.
  UniqueFd directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directoryFd.valid()) return failed("opening the directory", lastError());
  if (::fsync(directoryFd.get()) != 0) return failed("fsync of the directory", lastError());
  return {};
}

std::optional<std::vector<std::uint8_t>> FileManager::readFile(const std::filesystem::path& file,
                                                               std::error_code& error,
                                                               std::size_t maxSize) const {
  error.clear();
  // Without O_NONBLOCK, opening a FIFO waits for a writer, possibly forever.
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) {
    error = lastError();  // a symbolic link gives ELOOP, for the caller to log
    return std::nullopt;
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    error = lastError();
    return std::nullopt;
  }
  if (S_ISDIR(info.st_mode)) {
    error = std::make_error_code(std::errc::is_a_directory);
    return std::nullopt;
  }
  if (!S_ISREG(info.st_mode)) {
    error = make_error_code(FileManagerError::kNotRegularFile);
    return std::nullopt;
  }
  // Some file systems honour O_NONBLOCK on regular files too (EAGAIN under a lease or a
  // mandatory lock), so the reads below go back to waiting.
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    error = lastError();
    return std::nullopt;
  }
  if (static_cast<std::uintmax_t>(info.st_size) > maxSize) {
    error = std::make_error_code(std::errc::file_too_large);
    return std::nullopt;
  }
  // The file may grow while it is read; reading stops one byte past the limit, which a limit
  // of SIZE_MAX cannot go beyond.
  const std::size_t capacity = maxSize == SIZE_MAX ? maxSize : maxSize + 1;
  std::vector<std::uint8_t> bytes;
  std::size_t used = 0;
  try {
    bytes.resize(static_cast<std::size_t>(info.st_size));
    while (true) {
      if (used == bytes.size()) {
        if (bytes.size() > maxSize) {
          error = std::make_error_code(std::errc::file_too_large);
          return std::nullopt;
        }
        const std::size_t grown = bytes.size() > capacity / 2 ? capacity : bytes.size() * 2;
        bytes.resize(std::min(capacity, std::max<std::size_t>(grown, 4096)));
        if (used == bytes.size()) {  // maxSize is SIZE_MAX and the buffer is full
          error = std::make_error_code(std::errc::file_too_large);
          return std::nullopt;
        }
      }
      const ssize_t count = ::read(fd.get(), bytes.data() + used, bytes.size() - used);
      if (count < 0) {
        if (errno == EINTR) continue;
        error = lastError();
        return std::nullopt;
      }
      if (count == 0) break;
      used += static_cast<std::size_t>(count);
    }
  } catch (const std::bad_alloc&) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return std::nullopt;
  } catch (const std::length_error&) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return std::nullopt;
  }
  if (used > maxSize) {
    error = std::make_error_code(std::errc::file_too_large);
    return std::nullopt;
  }
  bytes.resize(used);
  return bytes;
}

std::error_code FileManager::removeItem(const std::filesystem::path& item) const {
  std::error_code error;
  fs::remove_all(item, error);
  if (error) fileLog().error("cannot remove %@: %@", item.string(), error.message());
  return error;
}

bool FileManager::fileExists(const std::filesystem::path& item) const {
  std::error_code error;
  return fs::exists(item, error);
}

std::optional<std::vector<std::filesystem::path>> FileManager::contentsOfDirectory(
    const std::filesystem::path& directory, std::error_code& error) const {
  error.clear();
  std::vector<fs::path> entries;
  fs::directory_iterator iterator(directory, error);
  for (; !error && iterator != fs::directory_iterator(); iterator.increment(error)) {
    entries.push_back(iterator->path());
  }
  if (error) return std::nullopt;
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::optional<FileAttributes> FileManager::attributesOfItem(
    const std::filesystem::path& item) const {
  struct statx info {};
  if (::statx(AT_FDCWD, item.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME,
              &info) != 0) {
    return std::nullopt;
  }
  const auto toTimePoint = [](const struct statx_timestamp& stamp) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec)));
  };
  FileAttributes attributes;
  attributes.size = static_cast<std::uintmax_t>(info.stx_size);
  attributes.modificationDate = toTimePoint(info.stx_mtime);
  attributes.creationDate = (info.stx_mask & STATX_BTIME) != 0 ? toTimePoint(info.stx_btime)
                                                               : attributes.modificationDate;
  attributes.mode = info.stx_mode;
  return attributes;
}

}  // namespace orvex
