#include "tests/support/loopback_http_server.h"

#include <httplib.h>
#include <strings.h>
#include <sys/socket.h>

#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tools/orvex-backend/query_items.h"

namespace orvex::testing {

namespace {

// httplib listens with a backlog of 5; a test that opens dozens of connections at once would
// see SYNs dropped and retried a second later. Listening again on the bound socket widens it.
class WideBacklogServer : public httplib::Server {
 public:
  void widenBacklog() { ::listen(svr_sock_, SOMAXCONN); }
};

constexpr char kHiddenEncoding[] = "X-Loopback-Content-Encoding";

}  // namespace

struct LoopbackHttpServer::Impl {
  void serve(const httplib::Request& request, httplib::Response& response) {
    RecordedRequest recorded;
    recorded.method = request.method;
    const std::string& target = request.target;
    const size_t question = target.find('?');
    recorded.path = target.substr(0, question);
    if (question != std::string::npos) recorded.rawQuery = target.substr(question + 1);
    recorded.queryItems = backend::decodeQueryItems(recorded.rawQuery);
    for (const auto& [name, value] : request.headers) {
      // httplib adds the socket addresses to the request headers; they were not sent.
      if (name.starts_with("REMOTE_") || name.starts_with("LOCAL_")) continue;
      auto [entry, inserted] =
          recorded.headers.try_emplace(name == kHiddenEncoding ? "Content-Encoding" : name, value);
      if (!inserted) entry->second += ", " + value;
    }
    recorded.body = request.body;
    recorded.remotePort = request.remote_port;

    Handler handler;
    bool fail = false;
    {
      std::lock_guard lock(mutex);
      requests.push_back(recorded);
      if (failRemaining > 0) {
        --failRemaining;
        fail = true;
      } else {
        auto route = routes.find({recorded.method, recorded.path});
        if (route != routes.end()) handler = route->second;
      }
    }
    changed.notify_all();

    if (fail) {
      response.status = 200;
      response.set_header("Connection", "close");
      response.set_content_provider(1024, "application/octet-stream",
                                    [](size_t offset, size_t, httplib::DataSink& sink) {
                                      if (offset == 0) sink.write("partial", 7);
                                      return false;  // httplib drops the connection mid-body
                                    });
      return;
    }
    Response answer;
    if (handler) {
      try {
        answer = handler(recorded);
      } catch (const std::exception& error) {
        answer = Response{500, std::string("handler threw: ") + error.what(), {}};
      }
    } else {
      answer = Response{404, "no route for " + recorded.method + " " + recorded.path, {}};
    }
    response.status = answer.status;
    std::string contentType = "text/plain";
    for (const auto& [name, value] : answer.headers) {
      if (strcasecmp(name.c_str(), "Content-Type") == 0) {
        contentType = value;
      } else {
        response.set_header(name, value);
      }
    }
    if (!answer.body.empty() || answer.status != 304) {
      response.set_content(answer.body, contentType);
    }
  }

  WideBacklogServer server;
  std::promise<void> workersStarted;  // set once, when the server makes its worker pool
  std::thread thread;
  int port = 0;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::map<std::pair<std::string, std::string>, Handler> routes;
  std::vector<RecordedRequest> requests;
  int failRemaining = 0;
};

LoopbackHttpServer::LoopbackHttpServer() : impl_(std::make_unique<Impl>()) {
  Impl& impl = *impl_;
  const auto serve = [&impl](const httplib::Request& request, httplib::Response& response) {
    impl.serve(request, response);
  };
  // Enough workers that every connection of a test gets its own: a worker stays with its
  // connection while it is kept alive, so a small pool would serialize concurrent clients.
  // httplib takes ownership of the queue it is given.
  impl.server.new_task_queue = [&impl] {
    auto queue = std::make_unique<httplib::ThreadPool>(32);  // starts its threads
    impl.workersStarted.set_value();
    return queue.release();
  };
  // httplib would inflate a "deflate" body as zlib data and refuse the daemon's raw-deflate
  // uploads: the header is hidden from it before the body is read, and recorded all the same.
  impl.server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    auto& headers = const_cast<httplib::Headers&>(request.headers);
    if (auto found = headers.find("Content-Encoding");
        found != headers.end() && found->second == "deflate") {
      headers.erase(found);
      headers.emplace(kHiddenEncoding, "deflate");
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  const std::string any = ".*";
  impl.server.Get(any, serve);
  impl.server.Post(any, serve);
  // Short enough that stopping never waits long for an idle connection, long enough for the
  // requests of one test to share a connection.
  impl.server.set_keep_alive_timeout(3);
  impl.port = impl.server.bind_to_any_port("127.0.0.1");
  if (impl.port <= 0) throw std::runtime_error("LoopbackHttpServer: cannot bind 127.0.0.1");
  impl.server.widenBacklog();
  impl.thread = std::thread([&impl] { impl.server.listen_after_bind(); });
  // The socket already listens (connections queue in the kernel); wait for the workers too, so
  // that the server's threads are all there when the constructor returns.
  impl.workersStarted.get_future().wait();
}

LoopbackHttpServer::~LoopbackHttpServer() {
  impl_->server.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int LoopbackHttpServer::port() const { return impl_->port; }

std::string LoopbackHttpServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port);
}

void LoopbackHttpServer::handle(std::string method, std::string path, Handler handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->routes[{std::move(method), std::move(path)}] = std::move(handler);
}

std::vector<RecordedRequest> LoopbackHttpServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

size_t LoopbackHttpServer::requestCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests.size();
}

bool LoopbackHttpServer::waitForRequests(size_t count, std::chrono::milliseconds watchdog) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->changed.wait_for(lock, watchdog, [&] { return impl_->requests.size() >= count; });
}

void LoopbackHttpServer::failNextRequests(int count) {
  std::lock_guard lock(impl_->mutex);
  impl_->failRemaining = count;
}

}  // namespace orvex::testing
