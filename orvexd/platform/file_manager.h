// Where the daemon keeps its files, and the file operations its components share.
//
// The directories follow the XDG base directory rules: $XDG_CACHE_HOME and $XDG_CONFIG_HOME
// when they hold absolute paths, else ~/.cache and ~/.config; the daemon's own directory
// "com.zelmor.orvexd" lies inside each. The temporary directory is $TMPDIR (absolute) or /tmp.
//
// The daemon's own directories (cacheDirectory(), configDirectory() and every directory inside
// them) are private: created 0700 whatever the umask, tightened to 0700 when found looser, and
// never a symbolic link. Nothing the daemon reads or writes in them follows a symbolic link
// planted there: files are opened with O_NOFOLLOW and replaced through a temporary file and a
// rename in the same directory, and a link where a file or directory should be is refused with
// too_many_symbolic_link_levels (and logged, by the caller for a read). Directories above them
// (~/.cache may well be a link) are used as they are.
//
// FileManager keeps no state apart from the environment it was made with, so every member may
// be called from any thread at the same time. Operations report failures as error codes (or
// nullopt) and never throw.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace orvex {

struct DirectoryEnvironment {
  std::string home;
  std::string xdgCacheHome;
  std::string xdgConfigHome;
  std::string tmpdir;

  // HOME, XDG_CACHE_HOME, XDG_CONFIG_HOME and TMPDIR of this process (unset reads as empty).
  static DirectoryEnvironment fromProcess();
};

// Failures of FileManager that no errno value names.
enum class FileManagerError {
  kNotRegularFile = 1,  // readFile() on a FIFO, socket or device
};
const std::error_category& fileManagerCategory();
std::error_code make_error_code(FileManagerError error);

struct FileAttributes {
  std::uintmax_t size = 0;
  std::chrono::system_clock::time_point modificationDate;
  // The birth time where the file system records one, else the modification date.
  std::chrono::system_clock::time_point creationDate;
  mode_t mode = 0;  // permission bits and file type, as st_mode
};

class FileManager {
 public:
  static constexpr std::size_t kDefaultMaxReadSize = std::size_t{64} << 20;  // 64 MiB

  explicit FileManager(DirectoryEnvironment environment);

  std::filesystem::path cacheDirectory() const;
  std::filesystem::path configDirectory() const;
  std::filesystem::path temporaryDirectory() const;

  // Creates `directory` and its missing parents, each with exactly `mode` whatever the umask;
  // private directories (see above) get 0700 instead, and existing ones are tightened to it. An
  // existing directory is success; an existing file of another kind is not_a_directory.
  std::error_code ensureDirectory(const std::filesystem::path& directory, mode_t mode = 0700) const;
  // Like ensureDirectory(), with `directory` itself private wherever it lies.
  std::error_code ensurePrivateDirectory(const std::filesystem::path& directory) const;

  // Replaces `file` with `bytes`: they are written to a new file beside it, flushed, given
  // `mode`, and renamed over `file`, and the directory is flushed. Readers see the old content
  // or the new one, never a mix; on failure the old file is left as it was and the temporary
  // file is removed. The directory must exist. A symbolic link at `file` is refused (a link
  // planted after that check is replaced by the rename, never written through).
  std::error_code writeFileAtomically(const std::filesystem::path& file,
                                      std::span<const std::uint8_t> bytes,
                                      mode_t mode = 0600) const;

  // The whole content of a regular file. A symbolic link is not followed: it gives
  // too_many_symbolic_link_levels. A directory gives is_a_directory and anything else that
  // is not a regular file (a FIFO, socket or device) FileManagerError::kNotRegularFile, without
  // waiting for a writer or reading from it. A file larger than `maxSize` is not read and gives
  // file_too_large.
  std::optional<std::vector<std::uint8_t>> readFile(
      const std::filesystem::path& file, std::error_code& error,
      std::size_t maxSize = kDefaultMaxReadSize) const;

  // Removes a file, or a directory with everything in it. A missing item is success.
  std::error_code removeItem(const std::filesystem::path& item) const;
  bool fileExists(const std::filesystem::path& item) const;
  // The entries of `directory` (full paths, sorted by name); nullopt when it cannot be listed.
  std::optional<std::vector<std::filesystem::path>> contentsOfDirectory(
      const std::filesystem::path& directory, std::error_code& error) const;
  // Attributes of the item itself (symbolic links are not followed).
  std::optional<FileAttributes> attributesOfItem(const std::filesystem::path& item) const;

 private:
  bool isPrivate(const std::filesystem::path& directory) const;

  DirectoryEnvironment environment_;
};

}  // namespace orvex

template <>
struct std::is_error_code_enum<orvex::FileManagerError> : std::true_type {};
