// The session's public face. The work is done by HttpSessionCore (tasks, the network thread and
// the cache), HttpSessionTask (a task's state and completion) and CurlTransfer (one libcurl
// transfer and how the configuration maps onto it).
#include "orvexd/platform/http_session.h"

#include <utility>

#include "orvexd/platform/http_session_core.h"
#include "orvexd/platform/http_session_task.h"

namespace orvex {

struct HttpSession::Impl : HttpSessionCore {
  using HttpSessionCore::HttpSessionCore;
};

HttpSession::HttpSession(HttpSessionConfiguration configuration, WorkerPool& pool, Clock& clock,
                         std::string temporaryDirectory)
    : impl_(std::make_shared<Impl>(std::move(configuration), pool, clock,
                                   std::move(temporaryDirectory))) {
  impl_->startNetworkThread();
}

HttpSession::~HttpSession() { impl_->shutdown(); }

const HttpSessionConfiguration& HttpSession::configuration() const {
  return impl_->configuration();
}
SerialQueue& HttpSession::callbackQueue() const { return impl_->callbackQueue(); }
WorkerPool& HttpSession::workerPool() const { return impl_->workerPool(); }
Clock& HttpSession::clock() const { return impl_->clock(); }

std::shared_ptr<HttpTask> HttpSession::dataTask(HttpRequest request, DataCompletion completion) {
  auto task = std::make_shared<HttpSessionTask>(HttpTaskKind::kData, std::move(request), impl_,
                                                std::move(completion), nullptr);
  impl_->registerTask(task);
  return task;
}

std::shared_ptr<HttpTask> HttpSession::downloadTask(HttpRequest request,
                                                    DownloadCompletion completion) {
  auto task = std::make_shared<HttpSessionTask>(HttpTaskKind::kDownload, std::move(request), impl_,
                                                nullptr, std::move(completion));
  impl_->registerTask(task);
  return task;
}

std::shared_ptr<HttpTask> HttpSession::uploadTask(HttpRequest request, std::string filePath,
                                                  DataCompletion completion) {
  auto task =
      std::make_shared<HttpSessionTask>(HttpTaskKind::kUpload, std::move(request), impl_,
                                        std::move(completion), nullptr, std::move(filePath));
  impl_->registerTask(task);
  return task;
}

void HttpSession::cancelAllTasks() {
  for (const auto& task : impl_->liveTasks()) task->cancel();
}

size_t HttpSession::outstandingTaskCount() const { return impl_->liveTasks().size(); }

}  // namespace orvex
