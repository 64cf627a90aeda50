#include "orvexd/feedback/orvex_feedback_flusher.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <system_error>
#include <typeinfo>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/feedback/compressed_output_stream.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/background_flusher.h"
#include "orvexd/model/interfaces/network_request_factory.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/http_session.h"

namespace orvex {

namespace {

const OrvexLog& flusherLog() { return OrvexLogForCategory(kOrvexLogFlusher); }

std::string errnoText(int error) { return std::generic_category().message(error); }

// The longest temporary file path mkstemp is given.
constexpr size_t kMaxTemporaryPath = 1024;
// How much of an object that could not be written goes into the log.
constexpr size_t kLoggedObjectBytes = 512;

// The bytes of `file` (an upload body), or nothing when it cannot be read.
std::optional<FlushedBody> saveFile(const std::filesystem::path& file) {
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat attributes {};
  if (!fd || ::fstat(fd.get(), &attributes) != 0) {
    flusherLog().error("open failed %@", file.string());
    return std::nullopt;
  }
  const auto size = static_cast<size_t>(attributes.st_size);
  if (size == 0) return FlushedBody();
  void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (mapped == MAP_FAILED) {
    flusherLog().error("mmap failed %@", errnoText(errno));
    return std::nullopt;
  }
  const auto* bytes = static_cast<const uint8_t*>(mapped);
  FlushedBody body(bytes, bytes + size);
  ::munmap(mapped, size);
  return body;
}

void removeTmpFile(const std::filesystem::path& file) {
  if (::unlink(file.c_str()) == 0) {
    flusherLog().info("File removed %@", file.string());
  } else {
    flusherLog().error("File Remove Error fpath %@ error %@", file.string(), errnoText(errno));
  }
}

// Removes a temporary file when the pass is done with it, however it leaves.
class TmpFileRemover {
 public:
  explicit TmpFileRemover(std::filesystem::path file) : file_(std::move(file)) {}
  ~TmpFileRemover() { removeTmpFile(file_); }
  TmpFileRemover(const TmpFileRemover&) = delete;
  TmpFileRemover& operator=(const TmpFileRemover&) = delete;

 private:
  const std::filesystem::path file_;
};

}  // namespace

std::shared_ptr<OrvexFeedbackFlusher> OrvexFeedbackFlusher::initWithAssembly(Assembly& assembly,
                                                                             int64_t identifier) {
  auto flusher = std::make_shared<OrvexFeedbackFlusher>(assembly, identifier);
  if (assembly.notificationCenter) {
    std::weak_ptr<OrvexFeedbackFlusher> weak = flusher;
    flusher->bagObserver_ = assembly.notificationCenter->addObserver(
        kORVBagChangeNotification, nullptr, [weak](const Notification& notification) {
          if (auto self = weak.lock()) self->bagChangeNotification(notification);
        });
  }
  return flusher;
}

OrvexFeedbackFlusher::OrvexFeedbackFlusher(Assembly& assembly, int64_t identifier)
    : assembly_(assembly),
      identifier_(identifier),
      name_(convertIdentifierToString(identifier)),
      queueBuffer_("com.zelmor.orvexd.orvexDataBufferQueue", *assembly.workerPool, *assembly.clock),
      feedbackCountQueue_("com.zelmor.orvexd.feedbackCountQueue", *assembly.workerPool,
                          *assembly.clock) {
  flusherLog().info("Initialize flusher for %s", name_);
}

OrvexFeedbackFlusher::~OrvexFeedbackFlusher() {
  flusherLog().info("Orvex Feedback Flusher %s deallocated", name_);
  bagObserver_.reset();
}

std::optional<std::string> OrvexFeedbackFlusher::getServerEndpointForFeedback(
    const std::optional<std::string>& url) {
  if (!url) return std::nullopt;
  const size_t fragment = url->find('#');
  const std::string withoutFragment = url->substr(0, fragment);
  std::string endpoint = withoutFragment.substr(0, withoutFragment.find('?'));
  endpoint.append("?v=2");
  if (fragment != std::string::npos) endpoint.append(*url, fragment);
  return endpoint;
}

void OrvexFeedbackFlusher::bagChangeNotification(const Notification& notification) {
  flusherLog().info("bag change notification received");
  const auto* bag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
  if (bag == nullptr || !*bag) return;
  std::optional<std::string> url;
  if ((*bag)->feedbackEnabled()) {
    if (identifier_ == kIdentifierCrowdsourcing) url = (*bag)->crowdsourcingURL();
    if (identifier_ == kIdentifierFeedbacks) url = (*bag)->feedbackURL();
  }
  queueBuffer_.async([weak = weak_from_this(), url = std::move(url)] {
    auto self = weak.lock();
    if (!self) return;
    if (self->identifier_ == kIdentifierFeedbacks) {
      self->serverEndpoint_ = getServerEndpointForFeedback(url);
    } else {
      self->serverEndpoint_ = url;
      flusherLog().info("new endpoint: %@", url.value_or(""));
    }
  });
}

void OrvexFeedbackFlusher::flush(std::shared_ptr<const FlushableObject> object,
                                 std::function<void()> callback) {
  queueBuffer_.async(
      [weak = weak_from_this(), object = std::move(object), callback = std::move(callback)] {
        if (auto self = weak.lock(); self && object) self->sessionBuffer_.push_back(object);
        if (callback) callback();
      });
}

void OrvexFeedbackFlusher::flushSyncFromArray(
    std::vector<std::shared_ptr<const FlushableObject>> objects) {
  queueBuffer_.async([weak = weak_from_this(), objects = std::move(objects)] {
    auto self = weak.lock();
    if (!self) return;
    for (const auto& object : objects) {
      if (object) self->sessionBuffer_.push_back(object);
    }
  });
}

void OrvexFeedbackFlusher::dropFeedbacks() {
  queueBuffer_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->sessionBuffer_.clear();
  });
}

void OrvexFeedbackFlusher::flushToWireAsync(
    std::function<void(std::vector<FlushedBody>)> callback) {
  queueBuffer_.async([weak = weak_from_this(), callback = std::move(callback)] {
    auto self = weak.lock();
    if (!self) return;
    std::vector<FlushedBody> bodies = self->flushToWireWithObjectsReturned(callback != nullptr);
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(bodies.size()),
                                                      kORVCounterClientConnection);
    if (callback) callback(std::move(bodies));
  });
}

std::vector<FlushedBody> OrvexFeedbackFlusher::flushToWireSync() {
  return queueBuffer_.syncResult([this] { return flushToWireWithObjectsReturned(true); })
      .value_or(std::vector<FlushedBody>());
}

size_t OrvexFeedbackFlusher::countOfDatabuffer() {
  return queueBuffer_.syncResult([this] { return sessionBuffer_.size(); }).value_or(0);
}

std::vector<std::shared_ptr<const FlushableObject>> OrvexFeedbackFlusher::sessionBuffer() {
  return queueBuffer_.syncResult([this] { return sessionBuffer_; })
      .value_or(std::vector<std::shared_ptr<const FlushableObject>>());
}

std::optional<std::string> OrvexFeedbackFlusher::serverEndpoint() {
  return queueBuffer_.syncResult([this] { return serverEndpoint_; }).value_or(std::nullopt);
}

void OrvexFeedbackFlusher::setFeedbacksPerTask(uint64_t taskIdentifier, uint64_t count) {
  feedbackCountQueue_.async([weak = weak_from_this(), taskIdentifier, count] {
    if (auto self = weak.lock()) self->feedbacksPerTask_[taskIdentifier] = count;
  });
}

void OrvexFeedbackFlusher::removeFeedbacksForTask(uint64_t taskIdentifier) {
  feedbackCountQueue_.async([weak = weak_from_this(), taskIdentifier] {
    if (auto self = weak.lock()) self->feedbacksPerTask_.erase(taskIdentifier);
  });
}

uint64_t OrvexFeedbackFlusher::getFeedbackCountForTask(uint64_t taskIdentifier) {
  return feedbackCountQueue_
      .syncResult([this, taskIdentifier] {
        auto found = feedbacksPerTask_.find(taskIdentifier);
        return found == feedbacksPerTask_.end() ? uint64_t{0} : found->second;
      })
      .value_or(0);
}

std::vector<FlushedBody> OrvexFeedbackFlusher::flushToWireWithObjectsReturned(bool returnObjects) {
  queueBuffer_.assertCurrent("flushToWireWithObjectsReturned");
  flusherLog().info("Sessions Flushed %lu", static_cast<unsigned long>(sessionBuffer_.size()));
  if (!serverEndpoint_) {
    flusherLog().error("Server endpoint not set, data can't be sent to server");
  }
  // The buffer is emptied whatever becomes of each object.
  const auto buffer = std::exchange(sessionBuffer_, {});
  std::vector<FlushedBody> bodies;
  for (const auto& object : buffer) {
    try {
      flushObject(*object, returnObjects, bodies);
    } catch (const std::exception& exception) {
      flusherLog().error("object not flushed: %@", exception.what());
    }
  }
  return bodies;
}

void OrvexFeedbackFlusher::flushObject(const FlushableObject& object, bool returnObjects,
                                       std::vector<FlushedBody>& bodies) {
  const std::optional<std::filesystem::path> file = getTmpFile();
  if (!file) {
    flusherLog().error("Error creating file to write feedbacks to disk");
    return;
  }
  const TmpFileRemover remover(*file);
  const nlohmann::json json = object.getFeedbacksToSend();
  CompressedOutputStream stream(std::make_unique<FileOutputStream>(*file));
  stream.open();
  std::optional<std::string> problem = writeJsonToStream(json, stream);
  stream.close();
  if (!problem && stream.streamStatus() == OutputStream::Status::kError) {
    problem = "the compressed stream failed";
  }
  if (problem) {
    std::string shown = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (shown.size() > kLoggedObjectBytes) shown.resize(kLoggedObjectBytes);
    OrvexLogForCategory(kOrvexLogFeedbackErrors)
        .error("Invalid JSON Object %@ error %@", shown, *problem);
    return;
  }
  const std::string digest = stream.dataDigestForStream();
  if (returnObjects) {
    if (auto body = saveFile(*file)) bodies.push_back(std::move(*body));
  }
  if (serverEndpoint_) {
    const uint64_t count = json.is_object() ? json.size() : 0;
    try {
      startUpload(*serverEndpoint_, *file, digest, count);
    } catch (const std::exception& exception) {
      flusherLog().error(
          "Error creating Upload Task for fpath %@. Exception %@ occurred for "
          "reason %@",
          file->string(), typeid(exception).name(), exception.what());
    }
  }
}

std::optional<std::filesystem::path> OrvexFeedbackFlusher::getTmpFile() {
  const std::filesystem::path directory =
      assembly_.fileManager ? assembly_.fileManager->temporaryDirectory() : "/tmp";
  std::string name = (directory / "flusher_XXXXXX").string();
  if (name.size() >= kMaxTemporaryPath) return std::nullopt;
  // mkostemp makes the file with mode 0600 and fills in the X characters.
  const UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return std::nullopt;
  flusherLog().info("flushing to %@", name);
  return std::filesystem::path(name);
}

void OrvexFeedbackFlusher::startUpload(const std::string& endpoint,
                                       const std::filesystem::path& file, const std::string& digest,
                                       uint64_t count) {
  const auto session = assembly_.uploadSession;
  const auto factory = assembly_.requestFactory;
  std::optional<HttpRequest> request;
  Duration timeout = kUploadTimeout;
  if (assembly_.userDefaults) {
    // A whole number of seconds may be stored as an integer or a real.
    double seconds = assembly_.userDefaults->doubleForKey(kORVFeedbackUploadTimeoutKey);
    if (seconds == 0) {
      seconds =
          static_cast<double>(assembly_.userDefaults->integerForKey(kORVFeedbackUploadTimeoutKey));
    }
    if (seconds > 0 && seconds <= 86400) {
      timeout = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
    }
  }
  if (factory) request = factory->flusherUploadRequest(endpoint, timeout, digest);
  if (!session || !request) {
    flusherLog().error(
        "Error creating Upload Task for fpath %@. Exception %@ occurred for reason %@",
        file.string(), "NoUploadRequest",
        session ? "no request for the endpoint" : "no upload session");
    return;
  }
  // Known once the task exists; its completion cannot run before it is resumed.
  auto taskIdentifier = std::make_shared<std::atomic<uint64_t>>(0);
  auto completion = [taskIdentifier, weak = weak_from_this(),
                     background = std::weak_ptr<BackgroundFlusher>(assembly_.backgroundFlusher)](
                        const HttpDataResult& result) {
    try {
      if (auto target = background.lock()) {
        target->uploadTaskDidComplete(taskIdentifier->load(), result);
      } else if (auto self = weak.lock()) {
        self->removeFeedbacksForTask(taskIdentifier->load());  // nobody counts it
      }
    } catch (const std::exception& exception) {
      flusherLog().error("upload completion failed: %@", exception.what());
    }
  };
  const std::shared_ptr<HttpTask> task =
      session->uploadTask(std::move(*request), file.string(), std::move(completion));
  taskIdentifier->store(task->taskIdentifier());
  setFeedbacksPerTask(task->taskIdentifier(), count);
  // The task opens the file as it resumes, so the pass may remove it right after.
  task->resume();
}

}  // namespace orvex
