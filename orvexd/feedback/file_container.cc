#include "orvexd/feedback/file_container.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "orvexd/base/orvex_logging.h"
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

// Writes all of `bytes` at the current offset; false (with errno set) on a failure.
bool writeAll(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
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
                                         maxFileSize, UniqueFd());
}

std::shared_ptr<FileContainer> FileContainer::initForWritingWithFileHandle(
    UniqueFd fileHandle, std::filesystem::path fileUrl, std::string version,
    std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize) {
  return std::make_shared<FileContainer>(std::move(fileUrl), std::move(version), std::move(queue),
                                         maxFileSize, std::move(fileHandle));
}

FileContainer::FileContainer(std::filesystem::path fileUrl, std::string version,
                             std::shared_ptr<SerialQueue> queue, uint64_t maxFileSize,
                             UniqueFd fileHandle)
    : fileUrl_(std::move(fileUrl)),
      version_(std::move(version)),
      queue_(std::move(queue)),
      maxFileSize_(maxFileSize),
      fileHandle_(std::move(fileHandle)) {}

void FileContainer::writeSessionHeader(PlistDictionary session) {
  queue_->async([self = shared_from_this(), session = std::move(session)] {
    const auto versionArchive = serializePropertyList(self->version_, PlistFormat::kBinary);
    if (!self->_archiveObject(versionArchive)) {
      storageLog().error("Could not write version string");
      self->_close();
    }
    // Tried even after a failed version record: the container is closed then and refuses it.
    const auto rootArchive = serializePropertyList(session, PlistFormat::kBinary);
    if (!self->_archiveObject(rootArchive)) {
      storageLog().error("Could not write root object");
      self->_close();
    }
  });
}

void FileContainer::writeFeedback(const OrvexFeedback& feedback, WriteDone done) {
  queue_->async([self = shared_from_this(), feedback, done = std::move(done)] {
    if (!self->fileHandle_) return;
    (void)self->_archiveObject(feedback.archiveData());
    if (done) done();
  });
}

bool FileContainer::_archiveObject(std::span<const uint8_t> archive) {
  queue_->assertCurrent("FileContainer::_archiveObject");
  if (!fileHandle_) return false;
  // An empty archive was not written (its encoder has logged why); a record is never empty.
  if (archive.empty()) return false;
  ProcessTransaction transaction("archiveObject");

  const int fd = fileHandle_.get();
  const off_t end = ::lseek(fd, 0, SEEK_END);
  if (end < 0) {
    storageLog().error("Could not seek in %@: %@", fileUrl_.string(), errnoText(errno));
    _close();
    return false;
  }
  const uint64_t position = static_cast<uint64_t>(end);
  const uint64_t recordSize = ArchivedDataIterator::kLengthSize + archive.size();
  if (position + recordSize >= maxFileSize_) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileSizeExceeded);
    storageLog().error("bytes written (%llu) + feedback (%lu) exceeds max session size (%lu)",
                       position, recordSize, maxFileSize_);
    _close();
    return false;
  }

  // One write of the whole record, so that it reaches the file in one piece or not at all as
  // far as the writer can help it.
  const uint64_t length = archive.size();
  const auto* lengthBytes = reinterpret_cast<const uint8_t*>(&length);
  std::vector<uint8_t> record;
  record.reserve(recordSize);
  record.insert(record.end(), lengthBytes, lengthBytes + ArchivedDataIterator::kLengthSize);
  record.insert(record.end(), archive.begin(), archive.end());
  if (!writeAll(fd, record)) {
    const int error = errno;
    // Cut off what part of the record got there, so later readers find a clean end.
    if (::ftruncate(fd, end) != 0) {
      storageLog().error("Could not cut off a partial record in %@", fileUrl_.string());
    }
    storageLog().error("Could not write to %@: %@", fileUrl_.string(), errnoText(error));
    _close();
    return false;
  }
  return true;
}

void FileContainer::close() {
  queue_->async([self = shared_from_this()] { self->_close(); });
}

void FileContainer::_close() {
  queue_->assertCurrent("FileContainer::_close");
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

std::optional<StoredSession> FileContainer::_unarchiveObject() {
  queue_->assertCurrent("FileContainer::_unarchiveObject");
  const OrvexLog& log = storageLog();
  log.info("reading file url %@", fileUrl_.string());
  if (fileHandle_) {
    log.info("file is already open closing it %@", fileUrl_.string());
    _close();
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

  fileHandle_ = UniqueFd(::open(fileUrl_.c_str(), O_RDONLY | O_CLOEXEC));
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
