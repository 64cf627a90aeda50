// The session files on disk: where they live, what they are called, which of them wait for
// upload, and which are too old to keep.
//
// Files lie in "com.zelmor.orvexd" inside the user's cache directory and are called "session."
// followed by a decimal handle number; they are created with mode 0600. At start-up the storage
// scans the directory: files older than "ORVSessionMaxAge" seconds (by their creation time) are
// deleted and counted ("com.zelmor.orvexd.filetooold"), the others are listed for upload, and
// new files are numbered after the greatest surviving number, so no name is ever reused while
// its file exists. A session's file is listed only once the session closes it, so the uploader
// never reads a file that is still being written.
//
// Writing never gives up on a record while the daemon runs: a finished session whose file could
// not take all its records (full disk, missing directory) stays with the storage, and its
// records are tried again whenever any session file is written to; it is listed once they are
// all in. At most kMaxUnfinishedSessions wait like that: beyond them the oldest one's waiting
// records are given up, counted ("com.zelmor.orvexd.records.dropped"), and it is listed with
// what its file holds.
//
// Crowdsourcing records are no session's: they wait for their own upload in
// "crowdsourcing.pending" in the same directory, one JSON object a line, up to the session file
// size; records past it are counted as dropped.
//
// Threading: the storage's serial queue "com.zelmor.orvexd.persistentStorageQueue" owns
// `fileContainers` and every container's file. getAvailableSessionHandles() runs on it
// synchronously (not to be called from it); closing and deleting are posted to it. Names are
// taken with an atomic counter, so createFileContainerForWriting() may be called from any
// thread. Failures are logged in "Orvex_Feedback_Storage" and reported by returning nothing.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orvexd/feedback/file_container.h"
#include "orvexd/model/interfaces/persistent_storage.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexPersistentStorage final : public PersistentStorage,
                                     public std::enable_shared_from_this<OrvexPersistentStorage> {
 public:
  static constexpr uint64_t kDefaultMaxFileSize = 4194304;  // 4 MiB
  static constexpr double kDefaultMaxFileAge = 172800;      // 48 hours, in seconds
  static constexpr std::string_view kFileNamePrefix = "session.";
  static constexpr size_t kMaxUnfinishedSessions = 2;
  static constexpr std::string_view kCrowdsourcingFileName = "crowdsourcing.pending";

  // Reads the limits, resolves the directory and scans it; files are written with `version` as
  // their first record, and only files that start with it are read back.
  OrvexPersistentStorage(Assembly& assembly, std::string version);

  std::shared_ptr<FileContainer> createFileContainerForWriting() override;
  std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() override;
  void closeSessionWithFileContainer(std::shared_ptr<FileContainer> container) override;
  void deleteSessionWithFileContainer(std::shared_ptr<FileContainer> container) override;
  void afterPendingWrites(std::function<void()> done) override;
  void keepCrowdsourcingRecord(std::string json) override;
  std::vector<std::string> takeCrowdsourcingRecords() override;

  const std::string& version() const { return version_; }
  uint64_t maxFileSize() const { return maxFileSize_; }
  // The number the next new file will take.
  int32_t nextHandleId() const { return handleId_.load(); }

 private:
  std::filesystem::path _newFileUrl();
  void _scanDirectory();
  void _deleteSessionFile(const std::filesystem::path& fileUrl);
  // Writes what finished sessions still hold; lists those that are complete now.
  void _retryUnfinished();

  Assembly& assembly_;
  const std::shared_ptr<SerialQueue> queue_;  // "com.zelmor.orvexd.persistentStorageQueue"
  // Set by the constructor, read-only afterwards.
  std::filesystem::path cachesUrl_;  // empty when there is no cache directory
  const std::string version_;
  uint64_t maxFileSize_ = kDefaultMaxFileSize;
  double maxFileAge_ = kDefaultMaxFileAge;
  // Owned by queue_ (filled by the constructor before any other use).
  std::vector<std::shared_ptr<FileContainer>> fileContainers_;
  std::vector<std::shared_ptr<FileContainer>> unfinished_;  // finished, records still unwritten
  std::atomic<int32_t> handleId_{0};
};

}  // namespace orvex
