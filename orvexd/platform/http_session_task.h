// One task of an HttpSession: its state, resume() and cancel() from any thread, and the one
// delivery of its completion on the session's callback queue. The task holds its session
// weakly; while its transfer runs, the session's network thread keeps it alive.
//
// Threads: `mutex_` guards state_, resumed_, cancelRequested_ and timing_; the completions are
// set at construction and cleared by deliver() on the callback queue; transfer() belongs to the
// session's network thread, except that resume() opens an upload's file into it before handing
// the task over.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "orvexd/platform/curl_transfer.h"
#include "orvexd/platform/http_session.h"

namespace orvex {

class HttpSessionCore;

class HttpSessionTask final : public HttpTask,
                              public std::enable_shared_from_this<HttpSessionTask> {
 public:
  // A data or upload task calls `dataCompletion`, a download task `downloadCompletion`;
  // `uploadPath` is the file an upload task sends.
  HttpSessionTask(HttpTaskKind kind, HttpRequest request, std::weak_ptr<HttpSessionCore> session,
                  HttpSession::DataCompletion dataCompletion,
                  HttpSession::DownloadCompletion downloadCompletion,
                  std::string uploadPath = std::string());

  uint64_t taskIdentifier() const override { return identifier_; }
  const HttpRequest& originalRequest() const override { return request_; }
  void resume() override;
  void cancel() override;
  State state() const override;
  TaskTimingData timingData() const override;

  HttpTaskKind kind() const { return kind_; }
  const std::string& uploadPath() const { return uploadPath_; }
  bool cancelRequested() const;
  void setTiming(TaskTimingData timing);
  // Marks the task completed; the outcome is delivered later on the callback queue.
  void markCompleted(const TaskTimingData& timing);
  // Runs the completion with `outcome`, or with the cancellation error when the task was
  // cancelled after its transfer had ended. Runs on the callback queue.
  void deliver(HttpTaskOutcome outcome);

  CurlTransfer& transfer() { return transfer_; }

 private:
  const uint64_t identifier_;
  const HttpTaskKind kind_;
  const HttpRequest request_;
  const std::weak_ptr<HttpSessionCore> session_;
  const std::string uploadPath_;
  HttpSession::DataCompletion dataCompletion_;
  HttpSession::DownloadCompletion downloadCompletion_;
  CurlTransfer transfer_;

  mutable std::mutex mutex_;
  State state_ = State::kSuspended;
  bool resumed_ = false;
  bool cancelRequested_ = false;
  TaskTimingData timing_;
};

}  // namespace orvex
