// How the session maps onto libcurl.
//
// Configuration fields and the options they become on every easy handle:
// - multiplexing: CURLOPT_HTTP_VERSION CURL_HTTP_VERSION_2TLS (HTTP/2 when TLS negotiates it)
//   and CURLMOPT_PIPELINING CURLPIPE_MULTIPLEX on the multi handle; otherwise HTTP/1.1 and one
//   request per connection at a time.
// - tcpFastOpen: CURLOPT_TCP_FASTOPEN, only when set.
// - tlsSessionTickets == false: CURLOPT_SSL_SESSIONID_CACHE 0 (no TLS session resumption).
// - requestTimeout (or the request's own timeout): CURLOPT_CONNECTTIMEOUT_MS, and
//   CURLOPT_LOW_SPEED_LIMIT 1 byte/s over CURLOPT_LOW_SPEED_TIME (whole seconds, rounded up),
//   which aborts a transfer that receives nothing for that long.
// - resourceTimeout: CURLOPT_TIMEOUT_MS for the whole transfer.
// - idleConnectionTimeout: CURLOPT_MAXAGE_CONN (whole seconds, rounded up).
// - extraCaFile: CURLOPT_CAINFO. It replaces the system bundle for the session, so the file must
//   hold every authority the session trusts.
// - cookies: the cookie engine is never enabled, so nothing is stored or sent.
// Always: no signals (CURLOPT_NOSIGNAL), every content encoding libcurl decodes
// (CURLOPT_ACCEPT_ENCODING ""), redirects followed up to 10 times, http and https only.
#include "orvexd/platform/http_session.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/property_list.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/platform/http_timing.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

using EasyHandle = std::unique_ptr<CURL, CFree<&curl_easy_cleanup>>;
using MultiHandle = std::unique_ptr<CURLM, CFree<&curl_multi_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, CFree<&curl_slist_free_all>>;

constexpr size_t kMaxDataBodySize = size_t{64} << 20;  // 64 MiB
constexpr long kMaxRedirects = 10;
// The network thread wakes at least this often even when libcurl has nothing due.
constexpr int kPollIntervalMs = 1000;

const OrvexLog& httpLog() { return OrvexLogForCategory(kOrvexLogConnection); }

std::once_flag gCurlGlobalInit;
std::atomic<uint64_t> gNextTaskIdentifier{1};

long clampToLong(int64_t value, int64_t minimum) {
  return static_cast<long>(std::clamp<int64_t>(value, minimum, LONG_MAX));
}

long millisecondsOf(Duration duration) {
  return clampToLong(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count(), 1);
}

long secondsRoundedUp(Duration duration) {
  return clampToLong(std::chrono::ceil<std::chrono::seconds>(duration).count(), 1);
}

OrvexError cancelledError() {
  return OrvexError(kHttpErrorDomain, kHttpErrorCancelled, "cancelled");
}

OrvexError curlError(CURLcode code, const char* detail) {
  std::string reason = curl_easy_strerror(code);
  if (detail != nullptr && *detail != '\0') {
    std::string_view text = trimWhitespace(detail);
    if (!text.empty()) {
      reason += ": ";
      reason += text;
    }
  }
  return OrvexError(kHttpErrorDomain, code, std::move(reason));
}

std::string errnoText(int error) { return std::strerror(error); }

bool requestForbidsStoredAnswer(const HttpRequest& request) {
  const auto contains = [&request](std::string_view name, std::string_view token) {
    auto found = request.headers.find(name);
    if (found == request.headers.end()) return false;
    std::string value = found->second;
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return value.find(token) != std::string::npos;
  };
  return contains("Cache-Control", "no-cache") || contains("Cache-Control", "max-age=0") ||
         contains("Pragma", "no-cache");
}

bool methodIs(const HttpRequest& request, std::string_view method) {
  return request.method == method;
}

}  // namespace

class SessionCore;

// Everything a task carries to its completion.
struct TaskOutcome {
  std::optional<HttpResponse> response;
  std::optional<OrvexError> error;
  std::string data;      // data and upload tasks
  std::string location;  // download tasks
  TaskTimingData timing;
};

// What one transfer needs while it runs; touched only by the network thread.
struct Transfer {
  HeaderList headers;  // declared before `easy` so that it outlives the handle that uses it
  EasyHandle easy;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  WallTime fetchStart;

  HttpHeaderMap responseHeaders;
  std::string lastHeaderName;
  std::string body;
  bool bodyTooLarge = false;

  UniqueFd downloadFd;
  std::string downloadPath;
  int downloadErrno = 0;

  UniqueFd uploadFd;
  std::optional<int64_t> uploadDoneUs;

  // The stored answer a conditional request is revalidating.
  std::optional<CachedResponse> revalidating;
};

class TaskImpl final : public HttpTask, public std::enable_shared_from_this<TaskImpl> {
 public:
  enum class Kind { kData, kDownload, kUpload };

  TaskImpl(Kind kind, HttpRequest request, std::weak_ptr<SessionCore> session)
      : identifier_(gNextTaskIdentifier.fetch_add(1)),
        kind_(kind),
        request_(std::move(request)),
        session_(std::move(session)) {}

  uint64_t taskIdentifier() const override { return identifier_; }
  const HttpRequest& originalRequest() const override { return request_; }
  void resume() override;
  void cancel() override;
  State state() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }
  TaskTimingData timingData() const override {
    std::lock_guard lock(mutex_);
    return timing_;
  }

  Kind kind() const { return kind_; }
  bool cancelRequested() const {
    std::lock_guard lock(mutex_);
    return cancelRequested_;
  }
  void setTiming(TaskTimingData timing) {
    std::lock_guard lock(mutex_);
    timing_ = std::move(timing);
  }
  // Marks the task completed; the outcome is delivered later on the callback queue.
  void markCompleted(const TaskTimingData& timing) {
    std::lock_guard lock(mutex_);
    state_ = State::kCompleted;
    timing_ = timing;
  }
  // Runs on the callback queue.
  void deliver(TaskOutcome outcome);

  HttpSession::DataCompletion dataCompletion;
  HttpSession::DownloadCompletion downloadCompletion;
  std::string uploadPath;
  Transfer transfer;  // network thread only

 private:
  const uint64_t identifier_;
  const Kind kind_;
  const HttpRequest request_;
  const std::weak_ptr<SessionCore> session_;

  mutable std::mutex mutex_;
  State state_ = State::kSuspended;
  bool resumed_ = false;
  bool cancelRequested_ = false;
  TaskTimingData timing_;
};

// The session's state, shared with its tasks (which hold it weakly) and its network thread.
class SessionCore {
 public:
  SessionCore(HttpSessionConfiguration configuration, WorkerPool& workerPool, Clock& sessionClock,
              std::string temporaryDirectory)
      : config(std::move(configuration)),
        pool(workerPool),
        clock(sessionClock),
        tempDir(std::move(temporaryDirectory)),
        callbackQueue("com.zelmor.orvexd.http." + config.identifier, workerPool, sessionClock) {}

  // --- any thread ---

  void registerTask(const std::shared_ptr<TaskImpl>& task) {
    std::lock_guard lock(mutex);
    registry[task->taskIdentifier()] = task;
  }

  // Records the end of a task and posts its completion. Called once per task.
  void finish(const std::shared_ptr<TaskImpl>& task, TaskOutcome outcome) {
    task->markCompleted(outcome.timing);
    {
      std::lock_guard lock(mutex);
      registry.erase(task->taskIdentifier());
    }
    callbackQueue.async(
        [task, outcome = std::move(outcome)]() mutable { task->deliver(std::move(outcome)); });
  }

  void finishWithError(const std::shared_ptr<TaskImpl>& task, OrvexError error) {
    TaskOutcome outcome;
    outcome.error = std::move(error);
    outcome.timing = task->timingData();
    finish(task, std::move(outcome));
  }

  void enqueue(const std::shared_ptr<TaskImpl>& task) {
    {
      std::lock_guard lock(mutex);
      if (!stopping && multi) {
        toStart.push_back(task);
        curl_multi_wakeup(multi.get());
        return;
      }
    }
    finishWithError(task, multi ? cancelledError()
                                : curlError(CURLE_FAILED_INIT, "the session has no multi handle"));
  }

  void requestCancel(const std::shared_ptr<TaskImpl>& task) {
    std::lock_guard lock(mutex);
    if (stopping || !multi) return;  // the network thread cancels everything on its way out
    toCancel.push_back(task);
    curl_multi_wakeup(multi.get());
  }

  void shutdown() {
    {
      std::lock_guard lock(mutex);
      stopping = true;
      if (multi) curl_multi_wakeup(multi.get());
    }
    if (thread.joinable()) thread.join();
    // Tasks that were never resumed.
    for (const auto& task : liveTasks()) task->cancel();
  }

  std::vector<std::shared_ptr<TaskImpl>> liveTasks() {
    std::vector<std::shared_ptr<TaskImpl>> tasks;
    std::lock_guard lock(mutex);
    for (auto it = registry.begin(); it != registry.end();) {
      if (auto task = it->second.lock()) {
        tasks.push_back(std::move(task));
        ++it;
      } else {
        it = registry.erase(it);  // dropped without ever being resumed
      }
    }
    return tasks;
  }

  // --- network thread ---

  void run();
  void start(const std::shared_ptr<TaskImpl>& task);
  bool configureEasy(TaskImpl& task, std::optional<OrvexError>& error);
  void completeTransfer(TaskImpl* raw, CURLcode code);
  void cancelTransfer(const std::shared_ptr<TaskImpl>& task);
  TaskTimingData collectTiming(const Transfer& transfer) const;
  void finishFromCache(const std::shared_ptr<TaskImpl>& task, const CachedResponse& cached);
  // A new file for a download, mode 0600, in the temporary directory.
  UniqueFd createDownloadFile(std::string& path, int& error) const;

  const HttpSessionConfiguration config;
  WorkerPool& pool;
  Clock& clock;
  const std::string tempDir;
  SerialQueue callbackQueue;
  MultiHandle multi;
  std::thread thread;

  // Guarded by `mutex`.
  std::mutex mutex;
  std::vector<std::shared_ptr<TaskImpl>> toStart;
  std::vector<std::shared_ptr<TaskImpl>> toCancel;
  bool stopping = false;
  std::unordered_map<uint64_t, std::weak_ptr<TaskImpl>> registry;  // made and not completed

  // Network thread only: the running transfers, which the session keeps alive.
  std::unordered_map<TaskImpl*, std::shared_ptr<TaskImpl>> active;
};

struct HttpSession::Impl : SessionCore {
  using SessionCore::SessionCore;
};

// ---------------------------------------------------------------------------------------------
// Tasks

void TaskImpl::resume() {
  {
    std::lock_guard lock(mutex_);
    if (resumed_ || state_ != State::kSuspended) return;
    resumed_ = true;
    if (cancelRequested_) return;  // cancel() has already completed it
    state_ = State::kRunning;
  }
  if (auto session = session_.lock()) {
    session->enqueue(shared_from_this());
  } else {
    std::lock_guard lock(mutex_);
    state_ = State::kCompleted;  // no session, no callback queue: nothing left to run
  }
}

void TaskImpl::cancel() {
  State current;
  {
    std::lock_guard lock(mutex_);
    if (cancelRequested_) return;
    cancelRequested_ = true;
    current = state_;
  }
  auto session = session_.lock();
  if (current == State::kSuspended) {
    if (session) {
      session->finishWithError(shared_from_this(), cancelledError());
    } else {
      std::lock_guard lock(mutex_);
      state_ = State::kCompleted;
    }
  } else if (current == State::kRunning && session) {
    session->requestCancel(shared_from_this());
  }
  // A completed task whose completion has not run yet reports the cancellation (deliver()).
}

void TaskImpl::deliver(TaskOutcome outcome) {
  if (cancelRequested() && !(outcome.error && outcome.error->code == kHttpErrorCancelled &&
                             outcome.error->domain == kHttpErrorDomain)) {
    // Cancelled after the transfer ended but before its completion ran: no answer may escape.
    if (!outcome.location.empty()) ::unlink(outcome.location.c_str());
    outcome.location.clear();
    outcome.response.reset();
    outcome.data.clear();
    outcome.error = cancelledError();
  }
  if (kind_ == Kind::kDownload) {
    const std::string location = outcome.location;
    if (downloadCompletion) {
      downloadCompletion(HttpDownloadResult{std::move(outcome.location),
                                            std::move(outcome.response), std::move(outcome.error),
                                            std::move(outcome.timing)});
    }
    // The file belongs to the completion only while it runs.
    if (!location.empty()) ::unlink(location.c_str());
  } else if (dataCompletion) {
    dataCompletion(HttpDataResult{std::move(outcome.data), std::move(outcome.response),
                                  std::move(outcome.error), std::move(outcome.timing)});
  }
  // Completions often capture their task; break that cycle now that they have run.
  dataCompletion = nullptr;
  downloadCompletion = nullptr;
}

// ---------------------------------------------------------------------------------------------
// libcurl callbacks (network thread)

namespace {

size_t onHeaderLine(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  std::string_view line(buffer, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    // A new response begins (after a redirect or an interim 1xx): only the last one counts.
    transfer.responseHeaders.clear();
    transfer.lastHeaderName.clear();
    return length;
  }
  if (line.empty()) return length;
  if (line.front() == ' ' || line.front() == '\t') {
    // Obsolete line folding continues the previous field.
    auto previous = transfer.responseHeaders.find(transfer.lastHeaderName);
    if (previous != transfer.responseHeaders.end()) {
      previous->second += ' ';
      previous->second += trimWhitespace(line);
    }
    return length;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return length;
  std::string name(trimWhitespace(line.substr(0, colon)));
  std::string_view value = trimWhitespace(line.substr(colon + 1));
  if (name.empty()) return length;
  auto [entry, inserted] = transfer.responseHeaders.try_emplace(name, value);
  if (!inserted) {
    entry->second += ", ";
    entry->second += value;
  }
  transfer.lastHeaderName = std::move(name);
  return length;
}

size_t onBodyToMemory(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  if (transfer.body.size() + length > kMaxDataBodySize) {
    transfer.bodyTooLarge = true;
    return 0;  // makes libcurl stop with CURLE_WRITE_ERROR
  }
  transfer.body.append(buffer, length);
  return length;
}

size_t onBodyToFile(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  const std::error_code error = writeAll(
      transfer.downloadFd.get(), std::span(reinterpret_cast<const uint8_t*>(buffer), length));
  if (error) {
    transfer.downloadErrno = error.value();
    return 0;
  }
  return length;
}

size_t onReadUpload(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t wanted = size * count;
  for (;;) {
    const ssize_t got = ::read(transfer.uploadFd.get(), buffer, wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return CURL_READFUNC_ABORT;
    if (got == 0 && wanted > 0) {
      curl_off_t elapsed = 0;
      if (curl_easy_getinfo(transfer.easy.get(), CURLINFO_TOTAL_TIME_T, &elapsed) == CURLE_OK) {
        transfer.uploadDoneUs = elapsed;
      }
    }
    return static_cast<size_t>(got);
  }
}

int onSeekUpload(void* user, curl_off_t offset, int origin) {
  auto& transfer = *static_cast<Transfer*>(user);
  if (::lseek(transfer.uploadFd.get(), static_cast<off_t>(offset), origin) < 0) {
    return CURL_SEEKFUNC_FAIL;
  }
  transfer.uploadDoneUs.reset();
  return CURL_SEEKFUNC_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The network thread

void SessionCore::run() {
  for (;;) {
    std::vector<std::shared_ptr<TaskImpl>> starts;
    std::vector<std::shared_ptr<TaskImpl>> cancels;
    bool stop = false;
    {
      std::lock_guard lock(mutex);
      starts.swap(toStart);
      cancels.swap(toCancel);
      stop = stopping;
    }
    if (stop) {
      for (const auto& task : starts) finishWithError(task, cancelledError());
      while (!active.empty()) cancelTransfer(active.begin()->second);
      return;
    }
    for (const auto& task : starts) start(task);
    for (const auto& task : cancels) {
      // Not active: cancelled before it started (start() saw it) or already finished.
      if (active.contains(task.get())) cancelTransfer(task);
    }

    int running = 0;
    const CURLMcode performed = curl_multi_perform(multi.get(), &running);
    if (performed != CURLM_OK) {
      httpLog().error("session %@: curl_multi_perform failed: %@", config.identifier,
                      curl_multi_strerror(performed));
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      void* owner = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &owner);
      completeTransfer(static_cast<TaskImpl*>(owner), message->data.result);
    }
    curl_multi_poll(multi.get(), nullptr, 0, kPollIntervalMs, nullptr);
  }
}

void SessionCore::start(const std::shared_ptr<TaskImpl>& task) {
  if (task->cancelRequested()) {
    finishWithError(task, cancelledError());
    return;
  }
  Transfer& transfer = task->transfer;
  const HttpRequest& request = task->originalRequest();
  transfer.fetchStart = clock.wallNow();
  TaskTimingData begun;
  begun[taskTimingKey("fetchStart")] =
      std::chrono::duration<double>(transfer.fetchStart.time_since_epoch()).count();
  task->setTiming(std::move(begun));

  const bool usesCache =
      config.urlCache && task->kind() != TaskImpl::Kind::kUpload && methodIs(request, "GET");
  if (usesCache && request.cachePolicy == HttpCachePolicy::kUseProtocolCachePolicy) {
    if (auto cached = config.urlCache->cachedResponseForRequest(request)) {
      const bool fresh = cached->freshUntil && *cached->freshUntil > clock.wallNow();
      if (fresh && !requestForbidsStoredAnswer(request)) {
        finishFromCache(task, *cached);
        return;
      }
      if (cached->response.headers.contains("ETag") ||
          cached->response.headers.contains("Last-Modified")) {
        transfer.revalidating = std::move(cached);
      }
    }
  }

  std::optional<OrvexError> error;
  if (!configureEasy(*task, error)) {
    transfer.headers.reset();
    transfer.easy.reset();
    if (!transfer.downloadPath.empty()) ::unlink(transfer.downloadPath.c_str());
    httpLog().error("session %@: task %@ not started: %@", config.identifier,
                    std::to_string(task->taskIdentifier()), error);
    finishWithError(task, error.value_or(curlError(CURLE_FAILED_INIT, nullptr)));
    return;
  }
  const CURLMcode added = curl_multi_add_handle(multi.get(), transfer.easy.get());
  if (added != CURLM_OK) {
    transfer.easy.reset();
    if (!transfer.downloadPath.empty()) ::unlink(transfer.downloadPath.c_str());
    finishWithError(task,
                    OrvexError(kHttpErrorDomain, CURLE_FAILED_INIT,
                               std::string("cannot add transfer: ") + curl_multi_strerror(added)));
    return;
  }
  active.emplace(task.get(), task);
}

bool SessionCore::configureEasy(TaskImpl& task, std::optional<OrvexError>& error) {
  Transfer& transfer = task.transfer;
  const HttpRequest& request = task.originalRequest();
  transfer.easy.reset(curl_easy_init());
  CURL* easy = transfer.easy.get();
  if (easy == nullptr) {
    error = curlError(CURLE_OUT_OF_MEMORY, "cannot create a transfer");
    return false;
  }

  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &task);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(
      easy, CURLOPT_HTTP_VERSION,
      static_cast<long>(config.multiplexing ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
  if (config.tcpFastOpen) curl_easy_setopt(easy, CURLOPT_TCP_FASTOPEN, 1L);
  if (!config.tlsSessionTickets) curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, secondsRoundedUp(config.idleConnectionTimeout));
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, millisecondsOf(config.resourceTimeout));
  const Duration stallTimeout = request.timeout.value_or(config.requestTimeout);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, millisecondsOf(stallTimeout));
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, secondsRoundedUp(stallTimeout));
  if (!config.extraCaFile.empty())
    curl_easy_setopt(easy, CURLOPT_CAINFO, config.extraCaFile.c_str());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeaderLine);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);

  // Request headers, plus the validators of a revalidation unless the caller set its own.
  HttpHeaderMap headers = request.headers;
  if (transfer.revalidating) {
    const HttpHeaderMap& stored = transfer.revalidating->response.headers;
    if (auto etag = stored.find("ETag"); etag != stored.end()) {
      headers.try_emplace("If-None-Match", etag->second);
    }
    if (auto modified = stored.find("Last-Modified"); modified != stored.end()) {
      headers.try_emplace("If-Modified-Since", modified->second);
    }
  }
  if (task.kind() == TaskImpl::Kind::kUpload) {
    // Without this libcurl would label the file as a form.
    headers.try_emplace("Content-Type", "application/octet-stream");
  }
  for (const auto& [name, value] : headers) {
    // "Name;" sends a header with an empty value ("Name:" would remove libcurl's own).
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    curl_slist* extended = curl_slist_append(transfer.headers.get(), line.c_str());
    if (extended == nullptr) {
      error = curlError(CURLE_OUT_OF_MEMORY, "cannot build the request headers");
      return false;
    }
    (void)transfer.headers.release();
    transfer.headers.reset(extended);
  }
  if (transfer.headers) curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers.get());

  switch (task.kind()) {
    case TaskImpl::Kind::kData:
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBodyToMemory);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
      curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxDataBodySize));
      break;
    case TaskImpl::Kind::kDownload: {
      int fileError = 0;
      transfer.downloadFd = createDownloadFile(transfer.downloadPath, fileError);
      if (!transfer.downloadFd) {
        error =
            OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                       "cannot create a download file in " + tempDir + ": " + errnoText(fileError));
        return false;
      }
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBodyToFile);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
      break;
    }
    case TaskImpl::Kind::kUpload: {
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBodyToMemory);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
      transfer.uploadFd = UniqueFd(::open(task.uploadPath.c_str(), O_RDONLY | O_CLOEXEC));
      struct stat status {};
      if (!transfer.uploadFd || ::fstat(transfer.uploadFd.get(), &status) != 0 ||
          !S_ISREG(status.st_mode)) {
        const int openError = transfer.uploadFd ? EINVAL : errno;
        error = OrvexError(
            kHttpErrorDomain, CURLE_READ_ERROR,
            "cannot read upload file " + task.uploadPath + ": " +
                (transfer.uploadFd ? std::string("not a regular file") : errnoText(openError)));
        return false;
      }
      curl_easy_setopt(easy, CURLOPT_READFUNCTION, &onReadUpload);
      curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
      curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &onSeekUpload);
      curl_easy_setopt(easy, CURLOPT_SEEKDATA, &transfer);
      const auto size = static_cast<curl_off_t>(status.st_size);
      if (methodIs(request, "PUT")) {
        curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, size);
      } else {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
        if (!methodIs(request, "POST")) {
          curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        }
      }
      return true;
    }
  }

  // Method and body of data and download tasks.
  if (!request.body.empty() || methodIs(request, "POST")) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
    if (!methodIs(request, "POST")) {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
  } else if (methodIs(request, "HEAD")) {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (methodIs(request, "GET") || request.method.empty()) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  return true;
}

UniqueFd SessionCore::createDownloadFile(std::string& path, int& error) const {
  std::string pattern =
      (tempDir.empty() ? std::string("/tmp") : tempDir) + "/orvex-download-XXXXXX";
  UniqueFd fd(mkostemp(pattern.data(), O_CLOEXEC));  // mkostemp creates the file with mode 0600
  if (!fd) {
    error = errno;
    return fd;
  }
  path = std::move(pattern);
  return fd;
}

TaskTimingData SessionCore::collectTiming(const Transfer& transfer) const {
  CURL* easy = transfer.easy.get();
  CurlTransferMetrics metrics;
  const auto timeInfo = [easy](CURLINFO info) {
    curl_off_t value = 0;
    return curl_easy_getinfo(easy, info, &value) == CURLE_OK ? static_cast<int64_t>(value) : 0;
  };
  const auto textInfo = [easy](CURLINFO info) {
    char* value = nullptr;
    return curl_easy_getinfo(easy, info, &value) == CURLE_OK && value != nullptr
               ? std::string(value)
               : std::string();
  };
  metrics.nameLookupUs = timeInfo(CURLINFO_NAMELOOKUP_TIME_T);
  metrics.connectUs = timeInfo(CURLINFO_CONNECT_TIME_T);
  metrics.appConnectUs = timeInfo(CURLINFO_APPCONNECT_TIME_T);
  metrics.preTransferUs = timeInfo(CURLINFO_PRETRANSFER_TIME_T);
  metrics.startTransferUs = timeInfo(CURLINFO_STARTTRANSFER_TIME_T);
  metrics.totalUs = timeInfo(CURLINFO_TOTAL_TIME_T);
  metrics.uploadDoneUs = transfer.uploadDoneUs;
  long connects = 0;
  curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects);
  metrics.numConnects = connects;
  const std::string effectiveUrl = textInfo(CURLINFO_EFFECTIVE_URL);
  metrics.tls = effectiveUrl.size() >= 8 && strncasecmp(effectiveUrl.c_str(), "https://", 8) == 0;
  metrics.localIp = textInfo(CURLINFO_LOCAL_IP);
  metrics.primaryIp = textInfo(CURLINFO_PRIMARY_IP);
  long port = 0;
  curl_easy_getinfo(easy, CURLINFO_PRIMARY_PORT, &port);
  metrics.primaryPort = port;
  return makeTaskTimingData(transfer.fetchStart, metrics);
}

void SessionCore::cancelTransfer(const std::shared_ptr<TaskImpl>& task) {
  Transfer& transfer = task->transfer;
  TaskOutcome outcome;
  outcome.timing = collectTiming(transfer);
  outcome.error = cancelledError();
  curl_multi_remove_handle(multi.get(), transfer.easy.get());
  transfer.easy.reset();
  transfer.headers.reset();
  (void)transfer.uploadFd.close();
  (void)transfer.downloadFd.close();
  if (!transfer.downloadPath.empty()) ::unlink(transfer.downloadPath.c_str());
  active.erase(task.get());
  finish(task, std::move(outcome));
}

void SessionCore::completeTransfer(TaskImpl* raw, CURLcode code) {
  auto found = active.find(raw);
  if (found == active.end()) return;
  std::shared_ptr<TaskImpl> task = std::move(found->second);
  active.erase(found);
  Transfer& transfer = task->transfer;
  const HttpRequest& request = task->originalRequest();

  TaskOutcome outcome;
  outcome.timing = collectTiming(transfer);
  long status = 0;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &status);
  char* effectiveUrl = nullptr;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl);
  const std::string url = effectiveUrl != nullptr ? effectiveUrl : request.url;
  curl_multi_remove_handle(multi.get(), transfer.easy.get());
  transfer.easy.reset();
  transfer.headers.reset();
  (void)transfer.uploadFd.close();

  bool downloadOk = true;
  if (transfer.downloadFd && transfer.downloadFd.close() && transfer.downloadErrno == 0) {
    transfer.downloadErrno = errno;
    downloadOk = false;
  }
  if (code == CURLE_OK && !downloadOk) code = CURLE_WRITE_ERROR;

  if (code != CURLE_OK) {
    if (transfer.bodyTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
      outcome.error =
          OrvexError(kHttpErrorDomain, CURLE_FILESIZE_EXCEEDED, "response body larger than 64 MiB");
    } else if (transfer.downloadErrno != 0) {
      outcome.error =
          OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                     "cannot write download file: " + errnoText(transfer.downloadErrno));
    } else {
      outcome.error = curlError(code, transfer.errorBuffer);
    }
    if (!transfer.downloadPath.empty()) ::unlink(transfer.downloadPath.c_str());
    httpLog().info("session %@: task %@ failed: %@", config.identifier,
                   std::to_string(task->taskIdentifier()), *outcome.error);
    finish(task, std::move(outcome));
    return;
  }

  HttpResponse response;
  response.url = url;
  response.statusCode = status;
  response.headers = std::move(transfer.responseHeaders);
  outcome.data = std::move(transfer.body);
  outcome.location = transfer.downloadPath;

  UrlCache* cache = config.urlCache.get();
  if (cache != nullptr && transfer.revalidating && status == 304) {
    // Still valid: refresh the stored entry with the new header values and answer with it.
    CachedResponse& stored = *transfer.revalidating;
    for (const auto& [name, value] : response.headers) {
      if (strcasecmp(name.c_str(), "Content-Length") == 0 ||
          strcasecmp(name.c_str(), "Content-Encoding") == 0 ||
          strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
        continue;
      }
      stored.response.headers[name] = value;
    }
    stored.response.fromCache = false;
    if (!cache->storeResponse(request, stored.response, stored.body)) {
      cache->removeResponseForRequest(request);
    }
    response = stored.response;
    response.fromCache = true;
    if (task->kind() == TaskImpl::Kind::kDownload) {
      const int fd = ::open(transfer.downloadPath.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
      const std::error_code written =
          fd < 0 ? std::error_code(errno, std::generic_category()) : writeAll(fd, stored.body);
      if (fd >= 0) ::close(fd);
      if (written) {
        ::unlink(transfer.downloadPath.c_str());
        finishWithError(task, OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                                         "cannot write download file: " + written.message()));
        return;
      }
    } else {
      outcome.data = stored.body;
    }
  } else if (cache != nullptr && task->kind() != TaskImpl::Kind::kUpload &&
             methodIs(request, "GET")) {
    if (task->kind() == TaskImpl::Kind::kData) {
      cache->storeResponse(request, response, outcome.data);
    } else {
      // Download bodies are read back only when the cache could take them at all.
      struct stat info {};
      const uint64_t limit = std::max(cache->diskCapacity(), cache->memoryCapacity()) / 20;
      if (::stat(transfer.downloadPath.c_str(), &info) == 0 &&
          static_cast<uint64_t>(info.st_size) <= limit) {
        std::error_code ignored;
        std::string body;
        const int fd = ::open(transfer.downloadPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
          body.resize(static_cast<size_t>(info.st_size));
          size_t done = 0;
          while (done < body.size()) {
            const ssize_t got = ::read(fd, body.data() + done, body.size() - done);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            done += static_cast<size_t>(got);
          }
          ::close(fd);
          if (done == body.size()) cache->storeResponse(request, response, body);
        }
      }
    }
  } else if (cache != nullptr && !methodIs(request, "GET") && !methodIs(request, "HEAD") &&
             status >= 200 && status < 400) {
    // A successful unsafe request changes the resource: forget what was stored for it.
    HttpRequest stored;
    stored.url = request.url;
    cache->removeResponseForRequest(stored);
  }

  outcome.response = std::move(response);
  finish(task, std::move(outcome));
}

void SessionCore::finishFromCache(const std::shared_ptr<TaskImpl>& task,
                                  const CachedResponse& cached) {
  TaskOutcome outcome;
  outcome.response = cached.response;
  outcome.response->fromCache = true;
  if (task->kind() == TaskImpl::Kind::kDownload) {
    int error = 0;
    std::string path;
    UniqueFd fd = createDownloadFile(path, error);
    std::error_code written =
        fd ? writeAll(fd.get(), cached.body) : std::error_code(error, std::generic_category());
    if (fd && !written) written = fd.close();
    if (written) {
      if (!path.empty()) ::unlink(path.c_str());
      task->setTiming({});
      finishWithError(task, OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                                       "cannot write download file: " + written.message()));
      return;
    }
    outcome.location = std::move(path);
  } else {
    outcome.data = cached.body;
  }
  finish(task, std::move(outcome));  // a cached answer has no timing
}

// ---------------------------------------------------------------------------------------------
// HttpSession

HttpSession::HttpSession(HttpSessionConfiguration configuration, WorkerPool& pool, Clock& clock,
                         std::string temporaryDirectory) {
  std::call_once(gCurlGlobalInit, [] {
    const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) {
      httpLog().fault("curl_global_init failed: %@", curl_easy_strerror(result));
    }
  });
  impl_ =
      std::make_shared<Impl>(std::move(configuration), pool, clock, std::move(temporaryDirectory));
  impl_->multi.reset(curl_multi_init());
  if (!impl_->multi) {
    httpLog().fault("session %@: cannot create a multi handle; every task will fail",
                    impl_->config.identifier);
    return;
  }
  curl_multi_setopt(impl_->multi.get(), CURLMOPT_PIPELINING,
                    impl_->config.multiplexing ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
  impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
  pthread_setname_np(impl_->thread.native_handle(), "orvex-http");
}

HttpSession::~HttpSession() {
  impl_->shutdown();
  // The thread is gone; the multi handle is cleaned up with the Impl, after every easy handle
  // was removed and cleaned up by the thread.
}

const HttpSessionConfiguration& HttpSession::configuration() const { return impl_->config; }
SerialQueue& HttpSession::callbackQueue() const { return impl_->callbackQueue; }
WorkerPool& HttpSession::workerPool() const { return impl_->pool; }
Clock& HttpSession::clock() const { return impl_->clock; }

std::shared_ptr<HttpTask> HttpSession::dataTask(HttpRequest request, DataCompletion completion) {
  auto task = std::make_shared<TaskImpl>(TaskImpl::Kind::kData, std::move(request), impl_);
  task->dataCompletion = std::move(completion);
  impl_->registerTask(task);
  return task;
}

std::shared_ptr<HttpTask> HttpSession::downloadTask(HttpRequest request,
                                                    DownloadCompletion completion) {
  auto task = std::make_shared<TaskImpl>(TaskImpl::Kind::kDownload, std::move(request), impl_);
  task->downloadCompletion = std::move(completion);
  impl_->registerTask(task);
  return task;
}

std::shared_ptr<HttpTask> HttpSession::uploadTask(HttpRequest request, std::string filePath,
                                                  DataCompletion completion) {
  auto task = std::make_shared<TaskImpl>(TaskImpl::Kind::kUpload, std::move(request), impl_);
  task->dataCompletion = std::move(completion);
  task->uploadPath = std::move(filePath);
  impl_->registerTask(task);
  return task;
}

void HttpSession::cancelAllTasks() {
  for (const auto& task : impl_->liveTasks()) task->cancel();
}

size_t HttpSession::outstandingTaskCount() const { return impl_->liveTasks().size(); }

}  // namespace orvex
