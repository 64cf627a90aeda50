// The shared part of an HttpSession, which its tasks hold weakly: the tasks made and not yet
// completed, the hand-over of started and cancelled tasks to the network thread, and the
// session's libcurl multi handle, which the process's one network thread (CurlMultiLoop) drives
// along with the other sessions' to carry each transfer from its start (or its answer from the
// cache) to its completion. No thread is made per request or per session.
//
// Threads: the configuration, the pool, the clock and the callback queue are set at
// construction, `attached_` by startNetworkThread(). `mutex_` guards toStart_, toCancel_,
// drainPosted_, stopping_ and registry_; `postMutex_` guards postsClosed_. The network thread alone
// (or a thread that runs a drain in its place, see CurlMultiLoop::runOrPost) touches multi_ after
// start-up, driven_, active_, the cache and the transfers of running tasks. Completions are
// posted to callbackQueue_.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/platform/curl_multi_loop.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/http_session_cache.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class HttpSessionTask;

class HttpSessionCore {
 public:
  HttpSessionCore(HttpSessionConfiguration configuration, WorkerPool& pool, Clock& clock,
                  std::string temporaryDirectory);
  HttpSessionCore(const HttpSessionCore&) = delete;
  HttpSessionCore& operator=(const HttpSessionCore&) = delete;

  // Makes the multi handle and hands it to the network thread; without it every task fails.
  // Called once, right after construction.
  void startNetworkThread();
  // Takes the multi handle off the network thread, cancelling every task still outstanding.
  void shutdown();

  const HttpSessionConfiguration& configuration() const { return config_; }
  SerialQueue& callbackQueue() { return callbackQueue_; }
  WorkerPool& workerPool() const { return pool_; }
  Clock& clock() const { return clock_; }

  // --- any thread ---
  void registerTask(const std::shared_ptr<HttpSessionTask>& task);
  // Hands a resumed task to the network thread.
  void enqueue(const std::shared_ptr<HttpSessionTask>& task);
  // Asks the network thread to cancel a running task.
  void requestCancel(const std::shared_ptr<HttpSessionTask>& task);
  // Records the end of a task and posts its completion. Called once per task. `inPlace`: run the
  // completion on the calling thread when the callback queue is idle.
  void finish(const std::shared_ptr<HttpSessionTask>& task, HttpTaskOutcome outcome,
              bool inPlace = false);
  void finishWithError(const std::shared_ptr<HttpSessionTask>& task, OrvexError error);
  // The tasks made and not yet completed.
  std::vector<std::shared_ptr<HttpSessionTask>> liveTasks();

 private:
  // Queues a drain(), once the caller set drainPosted_ (under `mutex_`, released since).
  void postDrain();

  // --- network thread ---
  // Starts and cancels what was handed over.
  void drain();
  // Completes the transfers libcurl reports ended.
  void collectCompletions();
  void stop();
  void start(const std::shared_ptr<HttpSessionTask>& task);
  void completeTransfer(HttpSessionTask* raw, CURLcode code);
  // By value: the caller may hand in the entry of active_ that this erases, the task's last owner
  // when its caller dropped the handle.
  void cancelTransfer(std::shared_ptr<HttpSessionTask> task);
  void finishFromCache(const std::shared_ptr<HttpSessionTask>& task, const CachedResponse& cached);

  const HttpSessionConfiguration config_;
  WorkerPool& pool_;
  Clock& clock_;
  const std::string tempDir_;
  SerialQueue callbackQueue_;
  HttpSessionCache cache_;
  CHandle<CURLM, &curl_multi_cleanup> multi_;
  std::shared_ptr<CurlMultiLoop> loop_;
  CurlMultiLoop::Driven* driven_ = nullptr;
  bool attached_ = false;

  // Guarded by `mutex_`.
  std::mutex mutex_;
  std::vector<std::shared_ptr<HttpSessionTask>> toStart_;
  std::vector<std::shared_ptr<HttpSessionTask>> toCancel_;
  bool drainPosted_ = false;  // a drain() is queued on the network thread
  bool stopping_ = false;
  std::unordered_map<uint64_t, std::weak_ptr<HttpSessionTask>> registry_;  // made, not completed

  // Guarded by `postMutex_`, held while a drain() is posted or run in the network thread's place:
  // set by shutdown(), after which neither happens.
  std::mutex postMutex_;
  bool postsClosed_ = false;

  // Network thread only: the running transfers, which the session keeps alive.
  std::unordered_map<HttpSessionTask*, std::shared_ptr<HttpSessionTask>> active_;
};

}  // namespace orvex
