#include "orvexd/platform/http_session_task.h"

#include <unistd.h>

#include <atomic>
#include <utility>

#include "orvexd/platform/http_session_core.h"

namespace orvex {

namespace {

std::atomic<uint64_t> gNextTaskIdentifier{1};

}  // namespace

HttpSessionTask::HttpSessionTask(HttpTaskKind kind, HttpRequest request,
                                 std::weak_ptr<HttpSessionCore> session,
                                 HttpSession::DataCompletion dataCompletion,
                                 HttpSession::DownloadCompletion downloadCompletion,
                                 std::string uploadPath)
    : identifier_(gNextTaskIdentifier.fetch_add(1)),
      kind_(kind),
      request_(std::move(request)),
      session_(std::move(session)),
      uploadPath_(std::move(uploadPath)),
      dataCompletion_(std::move(dataCompletion)),
      downloadCompletion_(std::move(downloadCompletion)) {}

HttpTask::State HttpSessionTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

TaskTimingData HttpSessionTask::timingData() const {
  std::lock_guard lock(mutex_);
  return timing_;
}

bool HttpSessionTask::cancelRequested() const {
  std::lock_guard lock(mutex_);
  return cancelRequested_;
}

void HttpSessionTask::setTiming(TaskTimingData timing) {
  std::lock_guard lock(mutex_);
  timing_ = std::move(timing);
}

void HttpSessionTask::markCompleted(const TaskTimingData& timing) {
  std::lock_guard lock(mutex_);
  state_ = State::kCompleted;
  timing_ = timing;
}

void HttpSessionTask::resume() {
  {
    std::lock_guard lock(mutex_);
    if (resumed_ || state_ != State::kSuspended) return;
    resumed_ = true;
    if (cancelRequested_) return;  // cancel() has already completed it
    state_ = State::kRunning;
  }
  // An upload's file is opened now, so that the caller may remove it as soon as this returns;
  // the network thread takes the descriptor over with the task.
  if (kind_ == HttpTaskKind::kUpload) transfer_.openUploadFile(uploadPath_);
  if (auto session = session_.lock()) {
    session->enqueue(shared_from_this());
  } else {
    std::lock_guard lock(mutex_);
    state_ = State::kCompleted;  // no session, no callback queue: nothing left to run
  }
}

void HttpSessionTask::cancel() {
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
      session->finishWithError(shared_from_this(), httpCancelledError());
    } else {
      std::lock_guard lock(mutex_);
      state_ = State::kCompleted;
    }
  } else if (current == State::kRunning && session) {
    session->requestCancel(shared_from_this());
  }
  // A completed task whose completion has not run yet reports the cancellation (deliver()).
}

void HttpSessionTask::deliver(HttpTaskOutcome outcome) {
  if (cancelRequested() && !(outcome.error && outcome.error->code == kHttpErrorCancelled &&
                             outcome.error->domain == kHttpErrorDomain)) {
    // Cancelled after the transfer ended but before its completion ran: no answer may escape.
    if (!outcome.location.empty()) ::unlink(outcome.location.c_str());
    outcome.location.clear();
    outcome.response.reset();
    outcome.data.clear();
    outcome.error = httpCancelledError();
  }
  if (kind_ == HttpTaskKind::kDownload) {
    const std::string location = outcome.location;
    if (downloadCompletion_) {
      downloadCompletion_(HttpDownloadResult{std::move(outcome.location),
                                             std::move(outcome.response), std::move(outcome.error),
                                             std::move(outcome.timing)});
    }
    // The file belongs to the completion only while it runs.
    if (!location.empty()) ::unlink(location.c_str());
  } else if (dataCompletion_) {
    dataCompletion_(HttpDataResult{std::move(outcome.data), std::move(outcome.response),
                                   std::move(outcome.error), std::move(outcome.timing)});
  }
  // Completions often capture their task; break that cycle now that they have run.
  dataCompletion_ = nullptr;
  downloadCompletion_ = nullptr;
}

}  // namespace orvex
