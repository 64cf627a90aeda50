#include "orvexd/platform/http_session_core.h"

#include <unistd.h>

#include <chrono>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/http_download_file.h"
#include "orvexd/platform/http_session_task.h"
#include "orvexd/platform/http_timing.h"

namespace orvex {

namespace {

// Connections a session opens to one host; further transfers wait for one of them. Without a
// bound, a burst of searches from many clients opens a connection each, and a server that gives
// every kept-alive connection a worker of its own may leave the ones beyond its workers unserved
// for as long as the others stay busy.
constexpr long kMaxConnectionsPerHost = 6;

const OrvexLog& httpLog() { return OrvexLogForCategory(kOrvexLogConnection); }

std::once_flag gCurlGlobalInit;

}  // namespace

HttpSessionCore::HttpSessionCore(HttpSessionConfiguration configuration, WorkerPool& pool,
                                 Clock& clock, std::string temporaryDirectory)
    : config_(std::move(configuration)),
      pool_(pool),
      clock_(clock),
      tempDir_(std::move(temporaryDirectory)),
      callbackQueue_("com.zelmor.orvexd.http." + config_.identifier, pool, clock),
      cache_(config_.urlCache, clock) {}

void HttpSessionCore::startNetworkThread() {
  std::call_once(gCurlGlobalInit, [] {
    const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) {
      httpLog().fault("curl_global_init failed: %@", curl_easy_strerror(result));
    }
  });
  multi_.reset(curl_multi_init());
  if (!multi_) {
    httpLog().fault("session %@: cannot create a multi handle; every task will fail",
                    config_.identifier);
    return;
  }
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING,
                    config_.multiplexing ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
  loop_ = CurlMultiLoop::shared();
  loop_->runAndWait(
      [this] { driven_ = loop_->attach(multi_.get(), [this] { collectCompletions(); }); });
  if (driven_ == nullptr) {
    multi_.reset();
    httpLog().fault("session %@: the network thread cannot drive it; every task will fail",
                    config_.identifier);
    return;
  }
  attached_ = true;
}

void HttpSessionCore::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  {
    // Waits for a post under way; none is made afterwards.
    std::lock_guard lock(postMutex_);
    postsClosed_ = true;
  }
  // After every drain() posted before.
  if (attached_) loop_->runAndWait([this] { stop(); });
  // Tasks that were never resumed.
  for (const auto& task : liveTasks()) task->cancel();
}

void HttpSessionCore::registerTask(const std::shared_ptr<HttpSessionTask>& task) {
  std::lock_guard lock(mutex_);
  registry_[task->taskIdentifier()] = task;
}

void HttpSessionCore::enqueue(const std::shared_ptr<HttpSessionTask>& task) {
  bool handedOver = false;
  bool post = false;
  {
    std::lock_guard lock(mutex_);
    if (!stopping_ && attached_) {
      toStart_.push_back(task);
      handedOver = true;
      post = !std::exchange(drainPosted_, true);
    }
  }
  if (post) postDrain();
  if (handedOver) return;
  finishWithError(
      task, attached_ ? httpCancelledError()
                      : curlTransferError(CURLE_FAILED_INIT, "the session has no multi handle"));
}

// Posted after `mutex_` is released: the network thread, woken by the post, takes `mutex_` in
// drain() at once, and would otherwise wake only to wait for the poster to let it go. While the
// network thread waits, the drain runs here in its place: a search's request then goes out
// without a hand-over. `postMutex_` stays held until then, so that shutdown() waits for it.
void HttpSessionCore::postDrain() {
  std::lock_guard lock(postMutex_);
  if (postsClosed_) return;  // stop() takes whatever was handed over
  loop_->runOrPost([this] { drain(); });
}

void HttpSessionCore::requestCancel(const std::shared_ptr<HttpSessionTask>& task) {
  bool post = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || !attached_) return;  // the network thread cancels everything on its way out
    toCancel_.push_back(task);
    post = !std::exchange(drainPosted_, true);
  }
  if (post) postDrain();
}

void HttpSessionCore::finish(const std::shared_ptr<HttpSessionTask>& task, HttpTaskOutcome outcome,
                             bool inPlace) {
  task->markCompleted(outcome.timing);
  {
    std::lock_guard lock(mutex_);
    registry_.erase(task->taskIdentifier());
  }
  SerialQueue::Job deliver = [task, outcome = std::move(outcome)]() mutable {
    task->deliver(std::move(outcome));
  };
  if (inPlace) {
    callbackQueue_.runOrAsync(std::move(deliver));
  } else {
    callbackQueue_.async(std::move(deliver));
  }
}

void HttpSessionCore::finishWithError(const std::shared_ptr<HttpSessionTask>& task,
                                      OrvexError error) {
  HttpTaskOutcome outcome;
  outcome.error = std::move(error);
  outcome.timing = task->timingData();
  finish(task, std::move(outcome));
}

std::vector<std::shared_ptr<HttpSessionTask>> HttpSessionCore::liveTasks() {
  std::vector<std::shared_ptr<HttpSessionTask>> tasks;
  std::lock_guard lock(mutex_);
  for (auto it = registry_.begin(); it != registry_.end();) {
    if (auto task = it->second.lock()) {
      tasks.push_back(std::move(task));
      ++it;
    } else {
      it = registry_.erase(it);  // dropped without ever being resumed
    }
  }
  return tasks;
}

// --- the network thread ---

void HttpSessionCore::drain() {
  std::vector<std::shared_ptr<HttpSessionTask>> starts;
  std::vector<std::shared_ptr<HttpSessionTask>> cancels;
  {
    std::lock_guard lock(mutex_);
    starts.swap(toStart_);
    cancels.swap(toCancel_);
    drainPosted_ = false;
  }
  for (const auto& task : starts) start(task);
  for (const auto& task : cancels) {
    // Not active: cancelled before it started (start() saw it) or already finished.
    if (active_.contains(task.get())) cancelTransfer(task);
  }
}

void HttpSessionCore::collectCompletions() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    void* owner = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &owner);
    completeTransfer(static_cast<HttpSessionTask*>(owner), message->data.result);
  }
}

void HttpSessionCore::stop() {
  std::vector<std::shared_ptr<HttpSessionTask>> starts;
  {
    std::lock_guard lock(mutex_);
    starts.swap(toStart_);
    toCancel_.clear();
  }
  for (const auto& task : starts) finishWithError(task, httpCancelledError());
  while (!active_.empty()) cancelTransfer(active_.begin()->second);
  // Cleaned up here, while the loop still drives it: closing its connections calls back.
  multi_.reset();
  loop_->detach(driven_);
  driven_ = nullptr;
}

void HttpSessionCore::start(const std::shared_ptr<HttpSessionTask>& task) {
  if (task->cancelRequested()) {
    finishWithError(task, httpCancelledError());
    return;
  }
  CurlTransfer& transfer = task->transfer();
  const HttpRequest& request = task->originalRequest();
  transfer.fetchStart = clock_.wallNow();
  TaskTimingData begun;
  begun[taskTimingKey("fetchStart")] =
      std::chrono::duration<double>(transfer.fetchStart.time_since_epoch()).count();
  task->setTiming(std::move(begun));

  HttpSessionCache::Lookup cached = cache_.lookUp(request, task->kind());
  if (cached.answer) {
    finishFromCache(task, *cached.answer);
    return;
  }
  transfer.revalidating = std::move(cached.revalidating);

  // Request headers, plus the validators of a revalidation unless the caller set its own.
  HttpHeaderMap headers = request.headers;
  if (transfer.revalidating) HttpSessionCache::addValidators(*transfer.revalidating, headers);
  std::optional<OrvexError> error = transfer.configure(
      config_, request, std::move(headers), task->kind(), task->uploadPath(), tempDir_, task.get());
  if (error) {
    transfer.discard(nullptr);
    httpLog().error("session %@: task %@ not started: %@", config_.identifier,
                    std::to_string(task->taskIdentifier()), error);
    finishWithError(task, std::move(*error));
    return;
  }
  const CURLMcode added = curl_multi_add_handle(multi_.get(), transfer.easy.get());
  if (added != CURLM_OK) {
    transfer.discard(nullptr);
    finishWithError(task,
                    OrvexError(kHttpErrorDomain, CURLE_FAILED_INIT,
                               std::string("cannot add transfer: ") + curl_multi_strerror(added)));
    return;
  }
  active_.emplace(task.get(), task);
}

void HttpSessionCore::cancelTransfer(std::shared_ptr<HttpSessionTask> task) {
  CurlTransfer& transfer = task->transfer();
  HttpTaskOutcome outcome;
  outcome.timing = transfer.collectTiming();
  outcome.error = httpCancelledError();
  transfer.discard(multi_.get());
  active_.erase(task.get());
  finish(task, std::move(outcome));
}

void HttpSessionCore::completeTransfer(HttpSessionTask* raw, CURLcode code) {
  auto found = active_.find(raw);
  if (found == active_.end()) return;
  std::shared_ptr<HttpSessionTask> task = std::move(found->second);
  active_.erase(found);
  CurlTransfer& transfer = task->transfer();
  const HttpRequest& request = task->originalRequest();

  HttpTaskOutcome outcome = transfer.finish(multi_.get(), code, request.url);
  if (outcome.error) {
    httpLog().info("session %@: task %@ failed: %@", config_.identifier,
                   std::to_string(task->taskIdentifier()), *outcome.error);
    finish(task, std::move(outcome));
    return;
  }

  if (transfer.revalidating && outcome.response->statusCode == 304) {
    // Still valid: the stored entry takes the new header values and answers.
    CachedResponse stored =
        cache_.revalidated(request, std::move(*transfer.revalidating), outcome.response->headers);
    outcome.response = std::move(stored.response);
    if (task->kind() == HttpTaskKind::kDownload) {
      if (const std::error_code written = overwriteDownloadFile(outcome.location, stored.body)) {
        ::unlink(outcome.location.c_str());
        finishWithError(task, OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                                         "cannot write download file: " + written.message()));
        return;
      }
    } else {
      outcome.data = std::move(stored.body);
    }
  } else {
    cache_.remember(request, task->kind(), outcome);
  }
  // A short answer is handed over here, saving the wake-up of a worker on its way to the client;
  // never from a thread that stands in for the network thread, which has its own work to do.
  const bool inPlace = loop_->onNetworkThread() && task->kind() == HttpTaskKind::kData &&
                       config_.completeOnNetworkThreadUpTo > 0 &&
                       outcome.data.size() <= config_.completeOnNetworkThreadUpTo;
  finish(task, std::move(outcome), inPlace);
}

void HttpSessionCore::finishFromCache(const std::shared_ptr<HttpSessionTask>& task,
                                      const CachedResponse& cached) {
  HttpTaskOutcome outcome;
  outcome.response = cached.response;
  outcome.response->fromCache = true;
  if (task->kind() == HttpTaskKind::kDownload) {
    std::error_code written;
    std::optional<std::string> path = writeDownloadFile(tempDir_, cached.body, written);
    if (!path) {
      task->setTiming({});
      finishWithError(task, OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                                       "cannot write download file: " + written.message()));
      return;
    }
    outcome.location = std::move(*path);
  } else {
    outcome.data = cached.body;
  }
  finish(task, std::move(outcome));  // a cached answer has no timing
}

}  // namespace orvex
