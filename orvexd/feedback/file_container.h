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
// A container never grows its file to `maxFileSize` or beyond: the append that would reach the
// limit is refused, counted ("com.zelmor.orvexd.filesizeexceeded") and closes the file, and the
// container writes nothing after that. A file larger than the limit is not read at all; one of
// exactly the limit is.
//
// Threading: all file work runs on the storage's serial queue `queue`, which owns `fileHandle`.
// writeSessionHeader(), writeFeedback() and close() post to it and return at once; read() runs
// on it synchronously and so must not be called from it. Posted work holds the container, so a
// caller may drop its reference right after a write.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
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
  using WriteDone = std::function<void()>;

  static constexpr std::string_view kClientSessionClassName = "ClientSession";

  // A container for a file that is only read (a finished session).
  static std::shared_ptr<FileContainer> initWithUrl(std::filesystem::path fileUrl,
                                                    std::string version,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    uint64_t maxFileSize);
  // A container for a new file, open for writing through `fileHandle`.
  static std::shared_ptr<FileContainer> initForWritingWithFileHandle(
      UniqueFd fileHandle, std::filesystem::path fileUrl, std::string version,
      std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize);

  FileContainer(std::filesystem::path fileUrl, std::string version,
                std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize, UniqueFd fileHandle);
  FileContainer(const FileContainer&) = delete;
  FileContainer& operator=(const FileContainer&) = delete;

  const std::filesystem::path& fileUrl() const { return fileUrl_; }
  const std::string& version() const { return version_; }
  uint64_t maxFileSize() const { return maxFileSize_; }

  // Appends the version record and then `session` (its archive form) as the root record.
  void writeSessionHeader(PlistDictionary session);
  // Appends one record if the file is open, then calls `done` (also when the append was refused
  // for size), on the queue. Nothing is called when the file was closed already.
  void writeFeedback(const OrvexFeedback& feedback, WriteDone done = nullptr);
  // The session read back with every record that could be read, or nothing when the file is
  // missing, too large, of another version or without its two leading records. A file still
  // open for writing is closed first. Must not be called on the queue.
  std::optional<StoredSession> read();
  // Flushes and closes the file if it is open.
  void close();

  // The same, for callers already on the queue.
  void _close();

 private:
  bool _archiveObject(std::span<const uint8_t> archive);
  std::optional<StoredSession> _unarchiveObject();

  const std::filesystem::path fileUrl_;
  const std::string version_;
  const std::shared_ptr<SerialQueue> queue_;
  const uint64_t maxFileSize_;
  UniqueFd fileHandle_;  // owned by queue_
};

}  // namespace orvex
