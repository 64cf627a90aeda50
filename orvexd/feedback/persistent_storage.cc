#include "orvexd/feedback/persistent_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {
namespace {

const OrvexLog& storageLog() { return OrvexLogForCategory(kOrvexLogFeedbackStorage); }

}  // namespace

OrvexPersistentStorage::OrvexPersistentStorage(Assembly& assembly, std::string version)
    : assembly_(assembly),
      queue_(std::make_shared<SerialQueue>("com.zelmor.orvexd.persistentStorageQueue",
                                           *assembly.workerPool, *assembly.clock)),
      version_(std::move(version)) {
  if (assembly_.userDefaults) {
    const int64_t sizeLimit = assembly_.userDefaults->integerForKey(kORVSessionSizeLimitKey);
    if (sizeLimit >= 1) maxFileSize_ = static_cast<uint64_t>(sizeLimit);
    const double maxAge = assembly_.userDefaults->doubleForKey(kORVSessionMaxAgeKey);
    if (maxAge >= 1) maxFileAge_ = maxAge;
  }
  if (assembly_.fileManager) {
    cachesUrl_ = assembly_.fileManager->cacheDirectory();
  } else {
    storageLog().error("error getting cache directory %@", "no file manager");
  }
  _scanDirectory();
}

void OrvexPersistentStorage::_scanDirectory() {
  const OrvexLog& log = storageLog();
  if (cachesUrl_.empty()) {
    log.error("error scanning cache directory, could not get path");
    return;
  }
  std::error_code listError;
  const auto entries = assembly_.fileManager->contentsOfDirectory(cachesUrl_, listError);
  if (!entries) {
    log.error("error scanning cache directory %@", listError.message());
    return;
  }
  const WallTime now = assembly_.clock->wallNow();
  int64_t greatest = 0;  // numbering starts at 1
  // Files in the order they were made, which is their number's ("session.9" before
  // "session.10"); a name without a number comes last.
  std::vector<std::pair<int64_t, std::shared_ptr<FileContainer>>> found;
  for (const auto& entry : *entries) {
    const std::string name = entry.filename().string();
    if (name.starts_with('.') || !name.starts_with(kFileNamePrefix)) continue;
    const auto attributes = assembly_.fileManager->attributesOfItem(entry);
    if (!attributes) {
      log.error("Attribute fetch error %@", entry.string());
      continue;
    }
    const double age = std::chrono::duration<double>(now - attributes->creationDate).count();
    if (age > maxFileAge_) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterFileTooOld);
      if (const std::error_code error = assembly_.fileManager->removeItem(entry)) {
        log.error("file removing error %@", error.message());
      }
      continue;
    }
    const std::string_view number = std::string_view(name).substr(kFileNamePrefix.size());
    int32_t handle = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), handle);
    const bool numbered =
        error == std::errc() && end == number.data() + number.size() && handle >= 0;
    if (numbered) greatest = std::max<int64_t>(greatest, handle);
    found.emplace_back(numbered ? handle : std::numeric_limits<int64_t>::max(),
                       FileContainer::initWithUrl(entry, version_, queue_, maxFileSize_));
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  // No other component runs yet, but the list belongs to the queue all the same.
  for (auto& entry : found) fileContainers_.push_back(std::move(entry.second));
  handleId_.store(static_cast<int32_t>(greatest + 1));
}

std::filesystem::path OrvexPersistentStorage::_newFileUrl() {
  if (cachesUrl_.empty()) return {};
  const int32_t handle = handleId_.fetch_add(1);
  return cachesUrl_ / (std::string(kFileNamePrefix) + std::to_string(handle));
}

std::shared_ptr<FileContainer> OrvexPersistentStorage::createFileContainerForWriting() {
  const OrvexLog& log = storageLog();
  std::filesystem::path fileUrl = _newFileUrl();
  if (fileUrl.empty()) {
    log.error("Could not get a file url");
    return nullptr;
  }
  log.info("new file url %@", fileUrl.string());
  // On a first start, or after the user cleared the caches, the directory is not there yet. The
  // container makes the file with its first write, and again after any failure.
  (void)assembly_.fileManager->ensureDirectory(cachesUrl_, 0700);
  return FileContainer::initForWriting(std::move(fileUrl), version_, queue_, maxFileSize_,
                                       [weakSelf = weak_from_this()] {
                                         if (auto self = weakSelf.lock()) self->_retryUnfinished();
                                       });
}

std::vector<std::shared_ptr<FileContainer>> OrvexPersistentStorage::getAvailableSessionHandles() {
  auto snapshot = queue_->syncResult([this] {
    for (const auto& container : fileContainers_) {
      storageLog().info("available file url %@", container->fileUrl().string());
    }
    return fileContainers_;
  });
  return snapshot ? std::move(*snapshot) : std::vector<std::shared_ptr<FileContainer>>{};
}

void OrvexPersistentStorage::closeSessionWithFileContainer(
    std::shared_ptr<FileContainer> container) {
  if (!container) return;
  queue_->async([weakSelf = weak_from_this(), container = std::move(container)] {
    auto self = weakSelf.lock();
    if (!self) {
      container->_close();
      return;
    }
    if (container->_finish()) {
      self->fileContainers_.push_back(container);
      return;
    }
    self->unfinished_.push_back(container);
    if (self->unfinished_.size() <= kMaxUnfinishedSessions) return;
    // Writes have failed for a long time: the oldest session waits no longer.
    const auto oldest = self->unfinished_.front();
    self->unfinished_.erase(self->unfinished_.begin());
    const size_t dropped = oldest->_abandon();
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(dropped),
                                                      kORVCounterRecordsDropped);
    storageLog().error("gave up writing %lu records to %@", static_cast<unsigned long>(dropped),
                       oldest->fileUrl().string());
    self->fileContainers_.push_back(oldest);
  });
}

void OrvexPersistentStorage::_retryUnfinished() {
  queue_->assertCurrent("OrvexPersistentStorage::_retryUnfinished");
  // Oldest first, so that files are listed in the order their sessions ended.
  while (!unfinished_.empty() && unfinished_.front()->_finish()) {
    fileContainers_.push_back(unfinished_.front());
    unfinished_.erase(unfinished_.begin());
  }
}

void OrvexPersistentStorage::deleteSessionWithFileContainer(
    std::shared_ptr<FileContainer> container) {
  if (!container) return;
  queue_->async([weakSelf = weak_from_this(), container = std::move(container)] {
    auto self = weakSelf.lock();
    if (!self) return;
    std::erase(self->fileContainers_, container);
    container->_close();
    self->_deleteSessionFile(container->fileUrl());
  });
}

void OrvexPersistentStorage::afterPendingWrites(std::function<void()> done) {
  if (!done) return;
  // Every container writes on this queue, in the order its writes were posted.
  queue_->async(std::move(done));
}

void OrvexPersistentStorage::_deleteSessionFile(const std::filesystem::path& fileUrl) {
  queue_->assertCurrent("OrvexPersistentStorage::_deleteSessionFile");
  const OrvexLog& log = storageLog();
  if (fileUrl.empty()) {
    log.error("Handle %@ does not have a File URL", fileUrl.string());
    return;
  }
  log.info("delete file url %@", fileUrl.string());
  if (::unlink(fileUrl.c_str()) != 0 && errno != ENOENT) {
    log.error("File %@ delete failed", fileUrl.string());
  }
}

void OrvexPersistentStorage::keepCrowdsourcingRecord(std::string json) {
  queue_->async([weakSelf = weak_from_this(), json = std::move(json)] {
    auto self = weakSelf.lock();
    if (!self) return;
    const auto dropped = [&](const char* why) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsDropped);
      storageLog().error("crowdsourcing record dropped: %s", why);
    };
    if (self->cachesUrl_.empty()) return dropped("no cache directory");
    (void)self->assembly_.fileManager->ensureDirectory(self->cachesUrl_, 0700);
    const std::filesystem::path path = self->cachesUrl_ / kCrowdsourcingFileName;
    UniqueFd file(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    struct stat attributes {};
    if (!file || ::fstat(file.get(), &attributes) != 0) return dropped(std::strerror(errno));
    std::string line = std::move(json);
    line.push_back('\n');
    if (static_cast<uint64_t>(attributes.st_size) + line.size() > self->maxFileSize_) {
      return dropped("the pending file is full");
    }
    if (::write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      const int error = errno;
      // A part of a line would spoil the lines after it.
      (void)::ftruncate(file.get(), attributes.st_size);
      return dropped(std::strerror(error));
    }
  });
}

std::vector<std::string> OrvexPersistentStorage::takeCrowdsourcingRecords() {
  auto records = queue_->syncResult([this] {
    std::vector<std::string> taken;
    if (cachesUrl_.empty()) return taken;
    const std::filesystem::path path = cachesUrl_ / kCrowdsourcingFileName;
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file) return taken;
    // The file never grows past the session file size; a larger one was not written by us.
    struct stat attributes {};
    std::string text;
    if (::fstat(file.get(), &attributes) == 0 && S_ISREG(attributes.st_mode) &&
        static_cast<uint64_t>(attributes.st_size) <= maxFileSize_) {
      text.resize(static_cast<size_t>(attributes.st_size));
      const ssize_t got = ::read(file.get(), text.data(), text.size());
      text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    } else {
      storageLog().error("crowdsourcing records unreadable, dropped: %@", path.string());
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsDropped);
    }
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      if (end > start) taken.emplace_back(text, start, end - start);
      start = end + 1;
    }
    (void)::unlink(path.c_str());
    return taken;
  });
  return records ? std::move(*records) : std::vector<std::string>{};
}

}  // namespace orvex
