// An HTTP client session over one libcurl multi handle.
//
// The daemon keeps four sessions (main, bag, download, upload), each with its own settings,
// connection pool and callback queue. A session runs every transfer of its own on one network
// thread that drives the multi handle; no thread is made per request. Completions are delivered
// on the session's callback queue, one at a time, in the order transfers finish.
//
// Contract:
// - Tasks are made suspended: nothing is sent until resume(). resume() and cancel() may be
//   called from any thread, any number of times; only the first of each has an effect.
// - A task's completion runs exactly once, on the callback queue: with the answer, with a
//   transport error, or with the error kHttpErrorCancelled after cancel(). A cancelled task
//   never calls its completion with an answer, even when the answer was already on the wire.
// - An HTTP error status (404, 500, ...) is an answer, not a transport error.
// - Dropping the session cancels its outstanding tasks; their completions still run if the
//   callback queue is alive.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/base/orvex_error.h"
#include "orvexd/platform/clock.h"

namespace orvex {

class SerialQueue;
class UrlCache;
class WorkerPool;

// Transport failures. The code is the libcurl result code (a CURLcode), except for cancellation.
inline constexpr const char* kHttpErrorDomain = "ORVHTTPErrorDomain";
inline constexpr int64_t kHttpErrorCancelled = -999;

struct HttpSessionConfiguration {
  // Names the session in logs and its callback queue ("com.zelmor.orvexd.http.<identifier>").
  std::string identifier;
  // The response cache; none for a session that neither reads nor stores cached answers.
  std::shared_ptr<UrlCache> urlCache;
  // Cookies are never stored or sent by any of the daemon's sessions.
  bool tcpFastOpen = false;
  bool tlsSessionTickets = true;
  // HTTP/2, several requests multiplexed on one connection.
  bool multiplexing = true;
  // Longest wait for the next bytes of an answer (a request's own timeout replaces it).
  Duration requestTimeout = std::chrono::seconds(60);
  // Longest a whole transfer may take.
  Duration resourceTimeout = std::chrono::hours(24 * 7);
  // Idle connections are closed after this long.
  Duration idleConnectionTimeout = std::chrono::seconds(118);
  // Trusted certificates (PEM file) for private back-ends. When set, it replaces the system's
  // bundle for this session: it must hold every authority the session trusts.
  std::string extraCaFile;
  // Completions of data tasks whose answer is at most this many bytes run on the network thread
  // when the session's callback queue is idle, rather than on a worker woken for them. Only for a
  // session whose completions are short and never wait. 0: always on a worker.
  size_t completeOnNetworkThreadUpTo = 0;
};

struct HttpDataResult {
  std::string data;
  std::optional<HttpResponse> response;  // none on a transport error
  std::optional<OrvexError> error;       // none on an answer
  TaskTimingData timing;
};

struct HttpDownloadResult {
  // The downloaded body in a temporary file, deleted once the completion returns: move it
  // elsewhere from inside the completion to keep it.
  std::string location;
  std::optional<HttpResponse> response;
  std::optional<OrvexError> error;
  TaskTimingData timing;
};

class HttpTask {
 public:
  enum class State { kSuspended, kRunning, kCompleted };

  virtual ~HttpTask() = default;
  // Unique within the process.
  virtual uint64_t taskIdentifier() const = 0;
  virtual const HttpRequest& originalRequest() const = 0;
  virtual void resume() = 0;
  virtual void cancel() = 0;
  virtual State state() const = 0;
  // The timing collected so far; complete once the task has completed.
  virtual TaskTimingData timingData() const = 0;
};

class HttpSession {
 public:
  using DataCompletion = std::function<void(HttpDataResult)>;
  using DownloadCompletion = std::function<void(HttpDownloadResult)>;

  // `temporaryDirectory` receives download tasks' files.
  HttpSession(HttpSessionConfiguration configuration, WorkerPool& pool, Clock& clock,
              std::string temporaryDirectory);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  const HttpSessionConfiguration& configuration() const;
  SerialQueue& callbackQueue() const;
  WorkerPool& workerPool() const;
  Clock& clock() const;

  std::shared_ptr<HttpTask> dataTask(HttpRequest request, DataCompletion completion);
  std::shared_ptr<HttpTask> downloadTask(HttpRequest request, DownloadCompletion completion);
  // Sends the contents of `filePath` as the body (streamed, not read into memory). The file is
  // opened by resume(), so the caller may remove it as soon as resume() returns.
  std::shared_ptr<HttpTask> uploadTask(HttpRequest request, std::string filePath,
                                       DataCompletion completion);

  // Cancels every outstanding task of the session.
  void cancelAllTasks();
  // Tasks made and not yet completed.
  size_t outstandingTaskCount() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace orvex
