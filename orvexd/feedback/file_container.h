// One session file: the records of one client session, appended while the session runs and
// read back for upload.
//
// The file is a plain sequence of records, each an 8-byte little-endian length N and N bytes of
// one binary property list: first the version string (the daemon's user agent), then the
// session's own archive (a dictionary whose "$class" is "ClientSession"), then one OrvexFeedback
// archive per record in the order written. Appends never rewrite earlier bytes and a failed
// append is cut off again, so whatever ends the file, every whole record before the end stays
// readable.
//
// A container never grows its file to `maxFileSize` or beyond: a record that would reach the
// limit is refused, counted ("com.zelmor.orvexd.filesizeexceeded" and
// "com.zelmor.orvexd.records.dropped") and logged, and the records after it are still written.
// Sessions measure their records before they hand them over and go on in a new file instead, so
// they never meet this. A file larger than the limit is not read at all; one of exactly the
// limit is.
//
// Writing never gives up on a record. The file is made with the first write, not before. Records
// are queued in memory and written in order; a write that fails (full disk, missing or read-only
// directory) is cut off again, counted ("com.zelmor.orvexd.session.writefailures") and tried
// again, with everything queued after it, the next time a record is written. A file whose name
// has gone (the directory was removed or replaced) is made again at its place, with what the old
// one held copied over from the handle still open on it. Once the session is finished, the file
// is closed as soon as nothing waits to be written.
//
// Threading: all file work runs on the storage's serial queue `queue`, which owns every field
// below it but the inbox, where writeFeedback() leaves records for the queue to take in one go
// and write with one call. writeSessionHeader(), writeFeedback() and close() post to it and return
// at once; read() and readRecords() run on it synchronously and so must not be called from it.
// Posted work holds the container, so a caller may drop its reference right after a write.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orvexd/base/property_list.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

// What read() gives back: the session's archive form (a dictionary with "$class" "ClientSession",
// which the session rebuilds itself from) and its records in file order.
struct StoredSession {
  PlistDictionary session;
  std::vector<OrvexFeedback> feedbacks;
};

class FileContainer : public std::enable_shared_from_this<FileContainer> {
 public:
  static constexpr std::string_view kClientSessionClassName = "ClientSession";

  // A container for a file that is only read (a finished session).
  static std::shared_ptr<FileContainer> initWithUrl(std::filesystem::path fileUrl,
                                                    std::string version,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    uint64_t maxFileSize);
  // A container for a new file at `fileUrl`, made with the first write. `afterWrite` runs on the
  // queue after each batch of records has been handled (the storage retries other files then).
  static std::shared_ptr<FileContainer> initForWriting(std::filesystem::path fileUrl,
                                                       std::string version,
                                                       std::shared_ptr<SerialQueue> queue,
                                                       uint64_t maxFileSize,
                                                       std::function<void()> afterWrite = nullptr);

  FileContainer(std::filesystem::path fileUrl, std::string version,
                std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize, bool writable,
                std::function<void()> afterWrite);
  FileContainer(const FileContainer&) = delete;
  FileContainer& operator=(const FileContainer&) = delete;

  const std::filesystem::path& fileUrl() const { return fileUrl_; }
  const std::string& version() const { return version_; }
  uint64_t maxFileSize() const { return maxFileSize_; }
  // The bytes a record of `archiveSize` bytes takes in a file.
  static uint64_t recordSize(uint64_t archiveSize);

  // Makes the file with the version record and then `session` (its archive form) as the root
  // record. Returns the bytes the two take in the file.
  uint64_t writeSessionHeader(const PlistDictionary& session);
  // Appends one record (an OrvexFeedback archive) after those written before it. Nothing is
  // written once the container has been closed.
  void writeArchive(std::vector<uint8_t> archive);
  void writeFeedback(const OrvexFeedback& feedback) { writeArchive(feedback.archiveData()); }
  // The session read back with every record that could be read, or nothing when the file is
  // missing, too large, of another version or without its two leading records. A file still
  // open for writing is closed first. Must not be called on the queue.
  std::optional<StoredSession> read();
  // The records of the file as far as it has been written, and those still waiting to be
  // written, in order: the newest whose archives take at most `budget` bytes together. The file
  // stays open for writing. Must not be called on the queue.
  std::vector<OrvexFeedback> readRecords(uint64_t budget);
  // Flushes and closes the file if it is open.
  void close();

  // For the storage, on the queue. _finish() ends the writing: the waiting records are written
  // and the file closed; false while some could not be written (call it again later).
  bool _finish();
  // Gives up on the records still waiting and closes the file; returns how many there were.
  size_t _abandon();
  void _close();

 private:
  // Writes what waits; false when a write failed (and was counted `failures` times).
  bool _drain(uint64_t failures = 1);
  // An open file at fileUrl_, made (again) when needed; false when that failed.
  bool _ensureFile();
  // Writes the waiting records at the end of the file, in batches of one pwritev(2) each, and
  // drops (and counts) those the size limit refuses; false when a write failed and was cut off,
  // with the records of that batch and after it still waiting.
  bool _appendPending();
  bool _writeBatch(std::span<iovec> pieces, uint64_t bytes);
  std::optional<StoredSession> _unarchiveObject();
  std::vector<OrvexFeedback> _readRecords(uint64_t budget);

  const std::filesystem::path fileUrl_;
  const std::string version_;
  const std::shared_ptr<SerialQueue> queue_;
  const uint64_t maxFileSize_;
  const std::function<void()> afterWrite_;
  // Owned by queue_.
  UniqueFd fileHandle_;
  bool writable_;                             // records are still taken
  std::vector<uint8_t> versionArchive_;       // what a new file starts with
  std::vector<uint8_t> rootArchive_;          //
  uint64_t writtenBytes_ = 0;                 // whole records in the file
  std::deque<std::vector<uint8_t>> pending_;  // records not written yet, in order
  // Records handed over and not yet taken by the queue, in order; guarded by inboxMutex_.
  std::mutex inboxMutex_;
  std::vector<std::vector<uint8_t>> inbox_;
};

}  // namespace orvex
