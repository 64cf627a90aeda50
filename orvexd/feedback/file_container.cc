#include "orvexd/feedback/file_container.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <exception>
#include <system_error>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/archived_data_iterator.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/process_transaction.h"

namespace orvex {
namespace {

const OrvexLog& storageLog() { return OrvexLogForCategory(kOrvexLogFeedbackStorage); }

std::string errnoText(int error) { return std::generic_category().message(error); }

// A read-only mapping of a whole file, unmapped when it goes.
class MappedFile {
 public:
  MappedFile() = default;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile() {
    if (address_ != MAP_FAILED) ::munmap(address_, length_);
  }

  // 0 on success, else the errno value.
  int map(int fd, std::size_t length) {
    address_ = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    if (address_ == MAP_FAILED) return errno;
    length_ = length;
    return 0;
  }
  std::span<const uint8_t> bytes() const {
    return {static_cast<const uint8_t*>(address_), length_};
  }

 private:
  void* address_ = MAP_FAILED;
  std::size_t length_ = 0;
};

// Writes all of `bytes` at `offset`; false (with errno set) on a failure.
bool writeAllAt(int fd, std::span<const uint8_t> bytes, uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
    offset += static_cast<uint64_t>(written);
  }
  return true;
}

// Writes one record, its length and then its archive, at `offset`.
bool writeRecordAt(int fd, std::span<const uint8_t> archive, uint64_t offset) {
  const uint64_t length = archive.size();
  const auto* lengthBytes = reinterpret_cast<const uint8_t*>(&length);
  return writeAllAt(fd, std::span(lengthBytes, ArchivedDataIterator::kLengthSize), offset) &&
         writeAllAt(fd, archive, offset + ArchivedDataIterator::kLengthSize);
}

// Copies the first `length` bytes of `from` to the start of `to`; false (with errno set) on a
// failure.
bool copyFile(int from, int to, uint64_t length) {
  std::vector<uint8_t> buffer(64 * 1024);
  for (uint64_t offset = 0; offset < length;) {
    const std::size_t chunk =
        static_cast<std::size_t>(std::min<uint64_t>(buffer.size(), length - offset));
    const ssize_t got = ::pread(from, buffer.data(), chunk, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got == 0) errno = EIO;  // shorter than what was written to it
      return false;
    }
    if (!writeAllAt(to, std::span(buffer).first(static_cast<std::size_t>(got)), offset)) {
      return false;
    }
    offset += static_cast<uint64_t>(got);
  }
  return true;
}

bool isClass(const PlistValue& value, std::string_view className) {
  const PlistValue* found = value.find("$class");
  const std::string* name = found == nullptr ? nullptr : found->asString();
  return name != nullptr && *name == className;
}

}  // namespace

std::shared_ptr<FileContainer> FileContainer::initWithUrl(std::filesystem::path fileUrl,
                                                          std::string version,
                                                          std::shared_ptr<SerialQueue> queue,
                                                          uint64_t maxFileSize) {
  return std::make_shared<FileContainer>(std::move(fileUrl), std::move(version), std::move(queue),
                                         maxFileSize, false, nullptr);
}

std::shared_ptr<FileContainer> FileContainer::initForWriting(std::filesystem::path fileUrl,
                                                             std::string version,
                                                             std::shared_ptr<SerialQueue> queue,
                                                             uint64_t maxFileSize,
                                                             std::function<void()> afterWrite) {
  return std::make_shared<FileContainer>(std::move(fileUrl), std::move(version), std::move(queue),
                                         maxFileSize, true, std::move(afterWrite));
}

FileContainer::FileContainer(std::filesystem::path fileUrl, std::string version,
                             std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize,
                             bool writable, std::function<void()> afterWrite)
    : fileUrl_(std::move(fileUrl)),
      version_(std::move(version)),
      queue_(std::move(queue)),
      maxFileSize_(maxFileSize),
      afterWrite_(std::move(afterWrite)),
      writable_(writable) {}

uint64_t FileContainer::recordSize(uint64_t archiveSize) {
  return ArchivedDataIterator::kLengthSize + archiveSize;
}

uint64_t FileContainer::writeSessionHeader(const PlistDictionary& session) {
  auto versionArchive = serializePropertyList(version_, PlistFormat::kBinary);
  auto rootArchive = serializePropertyList(session, PlistFormat::kBinary);
  const uint64_t size = recordSize(versionArchive.size()) + recordSize(rootArchive.size());
  queue_->async([self = shared_from_this(), versionArchive = std::move(versionArchive),
                 rootArchive = std::move(rootArchive)]() mutable {
    if (!self->writable_) return;
    self->versionArchive_ = std::move(versionArchive);
    self->rootArchive_ = std::move(rootArchive);
    if (!self->_ensureFile()) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterSessionWriteFailures);
    }
  });
  return size;
}

void FileContainer::writeArchive(std::vector<uint8_t> archive) {
  // An empty archive was not made (its encoder has logged why); a record is never empty.
  if (archive.empty()) return;
  // One job takes every record that arrived before it ran. The record that finds the inbox
  // empty posts it, still holding the lock, so that each record has its job queued before
  // anyone can see the record waiting (and post work behind it).
  std::lock_guard lock(inboxMutex_);
  inbox_.push_back(std::move(archive));
  if (inbox_.size() > 1) return;
  queue_->async([self = shared_from_this()] {
    std::vector<std::vector<uint8_t>> arrived;
    {
      std::lock_guard lock(self->inboxMutex_);
      arrived.swap(self->inbox_);
    }
    if (!self->writable_) return;
    for (auto& archive : arrived) self->pending_.push_back(std::move(archive));
    // A failure counts once for each record that met it on arrival, however they were batched.
    (void)self->_drain(arrived.size());
    if (self->afterWrite_) self->afterWrite_();
  });
}

bool FileContainer::_drain(uint64_t failures) {
  queue_->assertCurrent("FileContainer::_drain");
  if (pending_.empty()) return true;
  if (_ensureFile() && _appendPending()) return true;
  OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(failures),
                                                    kORVCounterSessionWriteFailures);
  return false;
}

bool FileContainer::_ensureFile() {
  queue_->assertCurrent("FileContainer::_ensureFile");
  const OrvexLog& log = storageLog();
  if (fileHandle_) {
    struct stat attributes {};
    if (::fstat(fileHandle_.get(), &attributes) == 0 && attributes.st_nlink > 0) return true;
    log.error("session file %@ was removed, making it again", fileUrl_.string());
  }
  if (fileUrl_.empty()) return false;
  // The directory may have gone with the file (caches cleared); a failure shows at the open.
  (void)::mkdir(fileUrl_.parent_path().c_str(), 0700);
  // Never over an existing file: that would lose a session still waiting for upload.
  UniqueFd created(
      ::open(fileUrl_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!created) {
    log.error("Could not create %@: %@", fileUrl_.string(), errnoText(errno));
    return false;
  }
  // The mode exactly, whatever the umask.
  (void)::fchmod(created.get(), 0600);
  // A half-made file goes again, so that the next try starts it afresh.
  const auto fail = [&](std::string_view what) {
    const int error = errno;
    (void)::unlink(fileUrl_.c_str());
    if (!what.empty()) log.error(what);
    log.error("Could not write to %@: %@", fileUrl_.string(), errnoText(error));
    return false;
  };
  if (fileHandle_) {
    // The removed file is still readable through the old handle: what it held comes first.
    if (!copyFile(fileHandle_.get(), created.get(), writtenBytes_)) return fail({});
  } else {
    writtenBytes_ = 0;
    if (!versionArchive_.empty() && !writeRecordAt(created.get(), versionArchive_, 0)) {
      return fail("Could not write version string");
    }
    const uint64_t rootAt = versionArchive_.empty() ? 0 : recordSize(versionArchive_.size());
    if (!rootArchive_.empty() && !writeRecordAt(created.get(), rootArchive_, rootAt)) {
      return fail("Could not write root object");
    }
    writtenBytes_ = rootAt + (rootArchive_.empty() ? 0 : recordSize(rootArchive_.size()));
  }
  fileHandle_ = std::move(created);
  return true;
}

bool FileContainer::_appendPending() {
  queue_->assertCurrent("FileContainer::_appendPending");
  // Each record is its 8-byte length and its archive; up to kBatchRecords of them go out in one
  // pwritev(2) at the end of the file.
  constexpr std::size_t kBatchRecords = 256;
  static_assert(2 * kBatchRecords <= IOV_MAX);
  std::array<uint64_t, kBatchRecords> lengths;
  std::array<iovec, 2 * kBatchRecords> pieces;
  while (!pending_.empty()) {
    std::size_t used = 0;
    uint64_t batchBytes = 0;
    for (; used < pending_.size() && used < kBatchRecords; ++used) {
      const std::vector<uint8_t>& archive = pending_[used];
      const uint64_t size = recordSize(archive.size());
      if (writtenBytes_ + batchBytes + size >= maxFileSize_) break;
      lengths[used] = archive.size();
      pieces[2 * used] = {&lengths[used], ArchivedDataIterator::kLengthSize};
      pieces[2 * used + 1] = {const_cast<uint8_t*>(archive.data()), archive.size()};
      batchBytes += size;
    }
    if (used == 0) {
      const uint64_t size = recordSize(pending_.front().size());
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileSizeExceeded);
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsDropped);
      storageLog().error("bytes written (%llu) + feedback (%lu) exceeds max session size (%lu)",
                         writtenBytes_, size, maxFileSize_);
      pending_.pop_front();  // the record is gone, not waiting
      continue;
    }
    if (!_writeBatch(std::span(pieces).first(2 * used), batchBytes)) return false;
    writtenBytes_ += batchBytes;
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(used));
  }
  return true;
}

bool FileContainer::_writeBatch(std::span<iovec> pieces, uint64_t bytes) {
  ProcessTransaction transaction("archiveObject");
  const int fd = fileHandle_.get();
  uint64_t offset = writtenBytes_;
  while (bytes > 0) {
    const ssize_t written =
        ::pwritev(fd, pieces.data(), static_cast<int>(pieces.size()), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      const int error = written == 0 ? EIO : errno;
      // Cut off what part of the batch got there, so later readers find a clean end.
      if (::ftruncate(fd, static_cast<off_t>(writtenBytes_)) != 0) {
        storageLog().error("Could not cut off a partial record in %@", fileUrl_.string());
      }
      storageLog().error("Could not write to %@: %@", fileUrl_.string(), errnoText(error));
      return false;
    }
    // A short write: go on after what got there.
    auto done = static_cast<uint64_t>(written);
    offset += done;
    bytes -= done;
    while (!pieces.empty() && done >= pieces.front().iov_len) {
      done -= pieces.front().iov_len;
      pieces = pieces.subspan(1);
    }
    if (done > 0) {
      pieces.front().iov_base = static_cast<uint8_t*>(pieces.front().iov_base) + done;
      pieces.front().iov_len -= done;
    }
  }
  return true;
}

bool FileContainer::_finish() {
  queue_->assertCurrent("FileContainer::_finish");
  writable_ = false;
  if (!_drain()) return false;
  _close();
  return true;
}

size_t FileContainer::_abandon() {
  queue_->assertCurrent("FileContainer::_abandon");
  writable_ = false;
  const size_t abandoned = pending_.size();
  pending_.clear();
  _close();
  return abandoned;
}

void FileContainer::close() {
  queue_->async([self = shared_from_this()] { self->_close(); });
}

void FileContainer::_close() {
  queue_->assertCurrent("FileContainer::_close");
  writable_ = false;
  if (!fileHandle_) return;
  // A finished file goes to the disk before anyone is told it is complete.
  if (::fdatasync(fileHandle_.get()) != 0 && errno != EINVAL && errno != EBADF) {
    storageLog().error("Could not flush %@: %@", fileUrl_.string(), errnoText(errno));
  }
  if (const std::error_code error = fileHandle_.close()) {
    storageLog().error("Could not close %@: %@", fileUrl_.string(), error.message());
  }
}

std::optional<StoredSession> FileContainer::read() {
  auto result = queue_->syncResult([this] { return _unarchiveObject(); });
  if (!result) return std::nullopt;
  return std::move(*result);
}

std::vector<OrvexFeedback> FileContainer::readRecords(uint64_t budget) {
  auto result = queue_->syncResult([this, budget] { return _readRecords(budget); });
  return result ? std::move(*result) : std::vector<OrvexFeedback>();
}

std::vector<OrvexFeedback> FileContainer::_readRecords(uint64_t budget) {
  queue_->assertCurrent("FileContainer::_readRecords");
  const OrvexLog& log = storageLog();
  // While the file is written its handle reads it, even when its name has gone; afterwards its
  // path does.
  UniqueFd reading;
  int fd = fileHandle_.get();
  uint64_t length = writtenBytes_;
  if (!fileHandle_ && !fileUrl_.empty()) {
    reading = UniqueFd(::open(fileUrl_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat attributes {};
    fd = reading.get();
    length =
        reading && ::fstat(fd, &attributes) == 0 ? static_cast<uint64_t>(attributes.st_size) : 0;
  }
  MappedFile mapping;
  if (length > maxFileSize_) {
    log.error("Session too big to process");
    length = 0;
  }
  if (length > 0) {
    if (const int error = mapping.map(fd, static_cast<std::size_t>(length)); error != 0) {
      log.error("mmap: %@", errnoText(error));
    }
  }

  // The archives in order: the file's after its version and session records, then those that
  // wait. Only the newest within the budget are decoded.
  std::vector<std::span<const uint8_t>> archives;
  ArchivedDataIterator iterator(mapping.bytes());
  for (int leading = 0; iterator.hasMore(); ++leading) {
    const auto archive = iterator.nextArchive();
    if (!archive) break;
    if (leading >= 2) archives.push_back(*archive);
  }
  for (const auto& archive : pending_) archives.emplace_back(archive);
  size_t first = archives.size();
  for (uint64_t used = 0; first > 0 && used + archives[first - 1].size() <= budget; --first) {
    used += archives[first - 1].size();
  }
  std::vector<OrvexFeedback> records;
  records.reserve(archives.size() - first);
  for (size_t i = first; i < archives.size(); ++i) {
    const auto form = parsePropertyList(archives[i]);
    if (!form) continue;  // the parser has logged why
    auto feedback = OrvexFeedback::fromArchiveForm(*form);
    if (!feedback) {
      log.error("orvex feedback expected");
      continue;
    }
    records.push_back(std::move(feedback).value());
  }
  return records;
}

std::optional<StoredSession> FileContainer::_unarchiveObject() {
  queue_->assertCurrent("FileContainer::_unarchiveObject");
  const OrvexLog& log = storageLog();
  log.info("reading file url %@", fileUrl_.string());
  if (fileHandle_) {
    log.info("file is already open closing it %@", fileUrl_.string());
    _close();  // and nothing more is written to it
  }
  if (fileUrl_.empty()) {
    log.error("No file url available");
    return std::nullopt;
  }

  struct stat attributes {};
  if (::stat(fileUrl_.c_str(), &attributes) != 0) {
    log.error("Attribute fetch error %@", errnoText(errno));
    return std::nullopt;
  }
  if (static_cast<uint64_t>(attributes.st_size) > maxFileSize_) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileTooLarge);
    log.error("Session too big to process");
    return std::nullopt;
  }

  fileHandle_ = UniqueFd(::open(fileUrl_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fileHandle_) {
    log.error("Could not open file for reading %@", errnoText(errno));
    return std::nullopt;
  }
  // The handle is only needed while the file is read; it goes on every way out.
  struct HandleCloser {
    UniqueFd& handle;
    ~HandleCloser() { (void)handle.close(); }
  } closer{fileHandle_};

  // The size of what was opened, which is what gets mapped.
  struct stat opened {};
  if (::fstat(fileHandle_.get(), &opened) != 0) {
    log.error("mmap: %@", errnoText(errno));
    return std::nullopt;
  }
  const uint64_t length = static_cast<uint64_t>(opened.st_size);
  if (length > maxFileSize_) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileTooLarge);
    log.error("Session too big to process");
    return std::nullopt;
  }
  if (length >= (uint64_t{1} << 32)) {
    log.error("erroneous file data length");
    return std::nullopt;
  }
  log.info("unarchive %@", fileUrl_.string());
  if (length == 0) {
    log.error("empty file");
    return std::nullopt;
  }
  MappedFile mapping;
  if (const int error = mapping.map(fileHandle_.get(), static_cast<std::size_t>(length));
      error != 0) {
    log.error("mmap: %@", errnoText(error));
    return std::nullopt;
  }

  try {
    ArchivedDataIterator iterator(mapping.bytes());
    const auto versionRecord = iterator.readNextObject();
    const std::string* storedVersion = versionRecord ? versionRecord->asString() : nullptr;
    if (storedVersion == nullptr) {
      log.error("version string not stored");
      return std::nullopt;
    }
    if (*storedVersion != version_) {
      log.error("version not supported: %@", *storedVersion);
      return std::nullopt;
    }
    auto root = iterator.readNextObject();
    if (!root || !isClass(*root, kClientSessionClassName)) {
      log.error("client session not stored");
      return std::nullopt;
    }
    StoredSession stored{std::move(*root->asDictionary()), {}};
    while (iterator.hasMore()) {
      const uint64_t position = iterator.position();
      const auto record = iterator.readNextObject();
      if (!record) {
        log.error("could not unarchive feedback range %lu size %lu", position, length);
        break;
      }
      if (!isClass(*record, OrvexFeedback::kClassName)) {
        log.error("orvex feedback expected");
        break;
      }
      auto feedback = OrvexFeedback::fromArchiveForm(*record);
      if (!feedback) {
        log.error("could not unarchive feedback range %lu size %lu", position, length);
        break;
      }
      stored.feedbacks.push_back(std::move(feedback).value());
    }
    return stored;
  } catch (const std::exception& exception) {
    log.error("exception reading session archive %@", exception.what());
    return std::nullopt;
  }
}

}  // namespace orvex
