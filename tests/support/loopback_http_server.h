// A recording HTTP/1.1 test server on 127.0.0.1, on a port the kernel picks.
//
// Routes are matched on the method and the exact path (without the query). Unrouted requests get
// 404. Every request that reaches the server — routed, unrouted or made to fail — is recorded
// before it is answered, so a test can wait for it and look at exactly what was sent.
//
// Handlers run on the server's worker threads (several at once); they may block, for instance
// until a test releases them, but must be released before the server is destroyed, which waits
// for them. The server answers with keep-alive, so a client may reuse its connection.
//
// Limits of the underlying server: header fields with an empty value are not recorded, and
// bodies over 8 KiB labelled application/x-www-form-urlencoded are refused with 413. A body
// sent with "Content-Encoding: deflate" is recorded as sent, still compressed.
//
// Only GET and POST requests reach handlers.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orvexd/base/http_types.h"

namespace orvex::testing {

struct RecordedRequest {
  std::string method;
  // The path as it was on the wire (percent-encoding kept), without the query.
  std::string path;
  // Everything after the first '?' of the request target, exactly as sent ("" when none).
  std::string rawQuery;
  // The query's name=value pairs in wire order, percent-decoded ('+' reads as a space). Pairs
  // are split on '&' only.
  std::vector<std::pair<std::string, std::string>> queryItems;
  // Repeated fields are joined with ", ".
  HttpHeaderMap headers;
  std::string body;
  // The client's port, which tells connections apart.
  int remotePort = 0;
};

class LoopbackHttpServer {
 public:
  struct Response {
    int status = 200;
    std::string body;
    // Sent as given; a Content-Type here replaces the default "text/plain".
    std::vector<std::pair<std::string, std::string>> headers;
  };
  using Handler = std::function<Response(const RecordedRequest&)>;

  // Listens on 127.0.0.1 and returns once connections are accepted. Throws when it cannot.
  LoopbackHttpServer();
  // Stops listening, closes connections and waits for running handlers.
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  int port() const;
  std::string baseUrl() const;  // "http://127.0.0.1:<port>"

  // Routes `method` `path` to `handler`, replacing an earlier route of the same pair. May be
  // called while the server runs.
  void handle(std::string method, std::string path, Handler handler);

  // A copy of everything recorded so far, in arrival order.
  std::vector<RecordedRequest> requests() const;
  size_t requestCount() const;
  // Waits until at least `count` requests were recorded; false when the watchdog expires first.
  bool waitForRequests(size_t count, std::chrono::milliseconds watchdog) const;

  // The next `count` requests, whatever their route, are recorded and then fail at the
  // transport level: the server sends the status line and headers announcing a body, sends
  // part of it and closes the connection, so the client sees a partial transfer.
  void failNextRequests(int count);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex::testing
