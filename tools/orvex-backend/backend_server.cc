#include "tools/orvex-backend/backend_server.h"

#include <httplib.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tools/orvex-backend/control_api.h"
#include "tools/orvex-backend/query_items.h"
#include "tools/orvex-backend/request_log.h"

namespace orvex::backend {

namespace {

// A worker stays with its connection while it is kept alive, and a delayed answer holds its
// worker, so the pool is sized for all of a daemon's sessions' connections plus delayed ones.
constexpr size_t kWorkerThreads = 64;
// Connections stay open as long as a production server would keep them: the daemon warms
// connections up ahead of queries and expects to reuse them.
constexpr time_t kKeepAliveSeconds = 30;
constexpr size_t kKeepAliveRequests = 1000;
constexpr size_t kMaxRequestBody = size_t{64} << 20;

// Bytes that no JSON parser accepts, from the first one on.
constexpr std::string_view kGarbage = "\xff\xfe<garbage> {\"truncated\": [1, 2,";

// httplib listens with a backlog of 5, so a burst of new connections would see SYNs dropped and
// retried a second later. Listening again on the bound socket widens it.
template <typename Base>
class WideBacklog : public Base {
 public:
  using Base::Base;
  void widenBacklog() { ::listen(this->svr_sock_, SOMAXCONN); }
};

bool isWildcard(const std::string& address) { return address == "0.0.0.0" || address == "::"; }

std::string urlHost(const std::string& address) {
  if (address == "0.0.0.0") return "127.0.0.1";
  if (address == "::") return "[::1]";
  if (address.find(':') != std::string::npos) return "[" + address + "]";
  return address;
}

// A Host header that is a plain host[:port], safe to put into URLs.
bool isPlainHost(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](unsigned char c) {
    return std::isalnum(c) || std::strchr(".-:[]", c) != nullptr;
  });
}

// httplib adds the socket addresses to the request headers; clients did not send them.
bool isAddressHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

// The HTTP library inflates request bodies by their Content-Encoding before any handler sees
// them, and takes "deflate" for the zlib format: a raw deflate upload would be refused with 400
// before its endpoint could look at it. The header is moved aside before the body is read, so
// bodies reach the endpoints exactly as sent, and put back for them and the request log.
constexpr const char* kContentEncoding = "Content-Encoding";
constexpr const char* kStashedContentEncoding = "X-Orvex-Backend-Stashed-Content-Encoding";

void stashContentEncoding(httplib::Request& request) {
  auto [begin, end] = request.headers.equal_range(kContentEncoding);
  std::vector<std::string> values;
  for (auto it = begin; it != end; ++it) values.push_back(it->second);
  request.headers.erase(begin, end);
  for (auto& value : values) request.headers.emplace(kStashedContentEncoding, std::move(value));
}

// The request's headers as the client sent them, in the library's order (by name).
HeaderList sentHeaders(const httplib::Request& request) {
  HeaderList headers;
  for (const auto& [name, value] : request.headers) {
    if (isAddressHeader(name)) continue;
    headers.emplace_back(
        strcasecmp(name.c_str(), kStashedContentEncoding) == 0 ? kContentEncoding : name, value);
  }
  std::stable_sort(headers.begin(), headers.end(), [](const auto& a, const auto& b) {
    return strcasecmp(a.first.c_str(), b.first.c_str()) < 0;
  });
  return headers;
}

bool mayHaveBody(int status) { return status >= 200 && status != 204 && status != 304; }

EndpointReply textReply(int status, std::string message) {
  return {status, "text/plain", std::move(message) + "\n", {}};
}

// Whether the fault decides the whole answer, so that the endpoint itself is not asked.
bool replacesAnswer(const Fault& fault) { return fault.status || fault.garbage || fault.body; }

EndpointReply applyFault(const Fault& fault, EndpointReply reply, const std::string& endpoint) {
  if (replacesAnswer(fault)) {
    reply = {fault.status.value_or(200), "application/json", "", {}};
    if (fault.body) {
      reply.body = *fault.body;
    } else if (fault.garbage) {
      reply.body = kGarbage;
    } else {
      reply = textReply(reply.status, "status " + std::to_string(reply.status) +
                                          " from the fault set on \"" + endpoint + "\"");
    }
  }
  if (fault.drop && !mayHaveBody(reply.status)) reply.status = 200;
  reply.headers.insert(reply.headers.end(), fault.headers.begin(), fault.headers.end());
  return reply;
}

void logError(const std::string& message) {
  const std::string line = "orvex-backend: error: " + message + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

// httplib's stop() closes only the listening socket: a worker serving an idle kept-alive
// connection waits out the keep-alive timeout before it notices. Shutting down every connection
// accepted on `port` ends those waits at once, so the server stops promptly.
void shutDownConnections(int port) {
  std::error_code error;
  for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    int fd = -1;
    if (std::from_chars(name.data(), name.data() + name.size(), fd).ec != std::errc()) continue;
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t localLength = sizeof local;
    socklen_t peerLength = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
      continue;  // not a socket, or not a connected one
    }
    int localPort = -1;
    if (local.ss_family == AF_INET) {
      localPort = ntohs(reinterpret_cast<const sockaddr_in&>(local).sin_port);
    } else if (local.ss_family == AF_INET6) {
      localPort = ntohs(reinterpret_cast<const sockaddr_in6&>(local).sin6_port);
    }
    if (localPort == port) ::shutdown(fd, SHUT_RDWR);
  }
}

std::string openSslError() {
  const unsigned long code = ERR_get_error();
  if (code == 0) return "";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return std::string(" (") + text + ")";
}

}  // namespace

struct BackendServer::Impl {
  Impl(Options options, EndpointRegistry endpoints, std::shared_ptr<FeedbackStore> feedback)
      : options(std::move(options)),
        endpoints(std::move(endpoints)),
        feedback(std::move(feedback)) {}

  void serve(const httplib::Request& request, httplib::Response& response);
  EndpointReply run(const Endpoint& endpoint, const EndpointRequest& request);
  void send(const EndpointReply& reply, bool drop, httplib::Response& response,
            std::chrono::milliseconds drip = std::chrono::milliseconds(0));
  // Waits `delay`, or less when the server stops; true when it is stopping.
  bool waitUnlessStopping(std::chrono::milliseconds delay);
  std::string baseUrlFor(const httplib::Request& request) const;

  const Options options;
  const EndpointRegistry endpoints;
  const std::shared_ptr<FeedbackStore> feedback;
  FaultTable faults;
  RequestLog log;
  ControlApi control{endpoints, faults, log, *feedback};

  std::unique_ptr<httplib::Server> server;
  std::function<void()> widenBacklog;
  std::promise<void> workersStarted;
  std::thread thread;
  int port = 0;
  std::string baseUrl;

  std::mutex stopMutex;
  std::condition_variable stopChanged;
  bool stopping = false;
};

void BackendServer::Impl::serve(const httplib::Request& request, httplib::Response& response) {
  const size_t question = request.target.find('?');
  const std::string rawPath = request.target.substr(0, question);
  const std::string rawQuery =
      question == std::string::npos ? std::string() : request.target.substr(question + 1);
  if (request.path.starts_with(ControlApi::kPrefix)) {
    send(control.handle(request.method, request.path, rawQuery, request.body), false, response);
    return;
  }

  EndpointRequest endpointRequest{.method = request.method,
                                  .path = request.path,
                                  .query = rawQuery,
                                  .queryItems = decodeQueryItems(rawQuery),
                                  .headers = sentHeaders(request),
                                  .body = request.body,
                                  .baseUrl = baseUrlFor(request)};
  LoggedRequest logged{.seq = 0,
                       .endpoint = std::nullopt,
                       .method = request.method,
                       .path = rawPath,
                       .query = rawQuery,
                       .queryItems = endpointRequest.queryItems,
                       .headers = endpointRequest.headers,
                       .bodySize = request.body.size(),
                       .status = 0};

  EndpointReply reply;
  std::optional<Fault> fault;
  if (const Endpoint* endpoint = endpoints.find(request.method, request.path)) {
    logged.endpoint = endpoint->name;
    fault = faults.takeFor(endpoint->name);
    if (!fault || !replacesAnswer(*fault)) reply = run(*endpoint, endpointRequest);
    if (fault) reply = applyFault(*fault, std::move(reply), endpoint->name);
  } else {
    reply = textReply(404, "no endpoint for " + request.method + " " + request.path);
  }

  logged.status = reply.status;
  if (!options.quiet) {
    const std::string text = logged.toText();
    std::fwrite(text.data(), 1, text.size(), stderr);
  }
  // Logged on arrival, so that a test sees a delayed request while it waits.
  log.record(std::move(logged));
  if (fault && fault->delay.count() > 0) waitUnlessStopping(fault->delay);
  send(reply, fault && fault->drop, response, fault ? fault->drip : std::chrono::milliseconds(0));
}

EndpointReply BackendServer::Impl::run(const Endpoint& endpoint, const EndpointRequest& request) {
  try {
    return endpoint.handler(request);
  } catch (const std::exception& error) {
    logError(endpoint.name + ": " + error.what());
    return textReply(500, error.what());
  }
}

void BackendServer::Impl::send(const EndpointReply& reply, bool drop, httplib::Response& response,
                               std::chrono::milliseconds drip) {
  response.status = reply.status;
  std::string contentType = reply.contentType;
  for (const auto& [name, value] : reply.headers) {
    if (strcasecmp(name.c_str(), "Content-Type") == 0) {
      contentType = value;
    } else {
      response.set_header(name, value);
    }
  }
  if (contentType.empty()) contentType = "text/plain";
  if (drop) {
    // Announce the whole body, send half of it and close: the client sees a transfer cut short.
    std::string body = reply.body.size() >= 2 ? reply.body : std::string(64, ' ');
    const size_t length = body.size();
    response.set_header("Connection", "close");
    response.set_content_provider(
        length, contentType,
        [body = std::move(body)](size_t offset, size_t, httplib::DataSink& sink) {
          if (offset == 0) sink.write(body.data(), body.size() / 2);
          return false;
        });
  } else if (drip.count() > 0 && mayHaveBody(reply.status)) {
    // One byte, then a pause, until the body is out or the server stops.
    response.set_content_provider(
        reply.body.size(), contentType,
        [this, body = reply.body, drip](size_t offset, size_t, httplib::DataSink& sink) {
          if (offset > 0 && waitUnlessStopping(drip)) return false;
          return sink.write(body.data() + offset, 1);
        });
  } else if (mayHaveBody(reply.status)) {
    response.set_content(reply.body, contentType);
  }
}

bool BackendServer::Impl::waitUnlessStopping(std::chrono::milliseconds delay) {
  std::unique_lock lock(stopMutex);
  return stopChanged.wait_for(lock, delay, [this] { return stopping; });
}

std::string BackendServer::Impl::baseUrlFor(const httplib::Request& request) const {
  // Bound to every address, the server is reached at whatever host the client asked for; a
  // device on the network needs URLs with that host, not the loopback one.
  if (isWildcard(options.bindAddress)) {
    const std::string host = request.get_header_value("Host");
    if (isPlainHost(host)) return (options.certificate ? "https://" : "http://") + host;
  }
  return baseUrl;
}

BackendServer::BackendServer(Options options, EndpointRegistry endpoints,
                             std::shared_ptr<FeedbackStore> feedback)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(endpoints), std::move(feedback))) {
  Impl& impl = *impl_;
  const Options& opts = impl.options;
  if (opts.certificate.has_value() != opts.privateKey.has_value()) {
    throw std::runtime_error("a certificate needs its private key, and a key its certificate");
  }
  if (opts.certificate) {
    for (const auto& file : {*opts.certificate, *opts.privateKey}) {
      std::error_code error;
      if (!std::filesystem::is_regular_file(file, error)) {
        throw std::runtime_error("cannot read " + file.string() + ": no such file");
      }
    }
    ERR_clear_error();
    auto server = std::make_unique<WideBacklog<httplib::SSLServer>>(opts.certificate->c_str(),
                                                                    opts.privateKey->c_str());
    if (!server->is_valid()) {
      throw std::runtime_error("cannot use " + opts.certificate->string() + " and " +
                               opts.privateKey->string() +
                               " as a PEM certificate and its private key" + openSslError());
    }
    impl.widenBacklog = [raw = server.get()] { raw->widenBacklog(); };
    impl.server = std::move(server);
  } else {
    auto server = std::make_unique<WideBacklog<httplib::Server>>();
    impl.widenBacklog = [raw = server.get()] { raw->widenBacklog(); };
    impl.server = std::move(server);
  }

  const std::string any = ".*";
  const auto serve = [&impl](const httplib::Request& request, httplib::Response& response) {
    impl.serve(request, response);
  };
  impl.server->Get(any, serve);
  impl.server->Post(any, serve);
  impl.server->Put(any, serve);
  impl.server->Patch(any, serve);
  impl.server->Delete(any, serve);
  impl.server->Options(any, serve);
  // The request object is the server's own, not const: only the handler's view of it is.
  impl.server->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    stashContentEncoding(const_cast<httplib::Request&>(request));
    return httplib::Server::HandlerResponse::Unhandled;
  });
  impl.server->set_exception_handler(
      [](const httplib::Request& request, httplib::Response& response, std::exception_ptr error) {
        std::string what = "unknown exception";
        try {
          std::rethrow_exception(std::move(error));
        } catch (const std::exception& exception) {
          what = exception.what();
        } catch (...) {
        }
        logError(request.method + " " + request.path + ": " + what);
        response.status = 500;
        response.set_content("internal error: " + what + "\n", "text/plain");
      });
  // SO_REUSEADDR only: httplib's default adds SO_REUSEPORT, with which a second server on the
  // same port would start and silently take half the connections.
  impl.server->set_socket_options([](int socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  });
  // An answer is written in more than one piece: with Nagle's algorithm the last piece waits for
  // the client's delayed ACK, some 40 ms on every request of a kept-alive connection.
  impl.server->set_tcp_nodelay(true);
  impl.server->set_payload_max_length(kMaxRequestBody);
  impl.server->set_keep_alive_timeout(kKeepAliveSeconds);
  impl.server->set_keep_alive_max_count(kKeepAliveRequests);
  // httplib takes ownership of the queue.
  impl.server->new_task_queue = [&impl] {
    auto queue = std::make_unique<httplib::ThreadPool>(kWorkerThreads);
    impl.workersStarted.set_value();
    return queue.release();
  };
}

BackendServer::~BackendServer() { stop(); }

FaultTable& BackendServer::faults() { return impl_->faults; }

const EndpointRegistry& BackendServer::endpoints() const { return impl_->endpoints; }

void BackendServer::start() {
  Impl& impl = *impl_;
  const std::string& address = impl.options.bindAddress;
  errno = 0;
  impl.port =
      impl.options.port == 0
          ? impl.server->bind_to_any_port(address)
          : (impl.server->bind_to_port(address, impl.options.port) ? impl.options.port : -1);
  if (impl.port <= 0) {
    throw std::runtime_error("cannot listen on " + address + " port " +
                             std::to_string(impl.options.port) +
                             (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
  }
  impl.widenBacklog();
  impl.baseUrl = (impl.options.certificate ? "https://" : "http://") + urlHost(address) + ":" +
                 std::to_string(impl.port);
  impl.thread = std::thread([&impl] { impl.server->listen_after_bind(); });
  // Once the workers exist the server is running, and stop() can end it.
  impl.workersStarted.get_future().wait();
}

void BackendServer::stop() {
  Impl& impl = *impl_;
  {
    std::lock_guard lock(impl.stopMutex);
    impl.stopping = true;
  }
  impl.stopChanged.notify_all();
  if (impl.thread.joinable()) {
    impl.server->stop();
    shutDownConnections(impl.port);
    impl.thread.join();
  }
}

int BackendServer::port() const { return impl_->port; }

const std::string& BackendServer::baseUrl() const { return impl_->baseUrl; }

}  // namespace orvex::backend
