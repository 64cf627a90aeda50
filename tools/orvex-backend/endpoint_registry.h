// The endpoints the back-end serves, by name: each is a method, a path and a handler. A path
// matches exactly, or, for an endpoint that serves a tree of files, as a prefix ending in '/'.
//
// Faults and the request log refer to endpoints by name ("bag", "warm", ...), so a test can
// break one endpoint without knowing its path. Handlers run on the server's worker threads,
// several at once, and must be safe to call concurrently.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvex::backend {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct EndpointRequest {
  std::string method;
  std::string path;   // percent-decoded, without the query
  std::string query;  // everything after the first '?', as sent
  std::vector<std::pair<std::string, std::string>> queryItems;  // decoded, in wire order
  HeaderList headers;
  std::string body;
  // The URL clients reach this server at, such as "http://127.0.0.1:40123".
  std::string baseUrl;

  // The value of the first header named `name` (in any case); none without one.
  std::optional<std::string> header(std::string_view name) const;
};

struct EndpointReply {
  int status = 200;
  std::string contentType;  // none for an empty body
  std::string body;
  HeaderList headers;
};

enum class PathMatch {
  kExact,
  kPrefix,  // the path and everything below it: "/images/" takes "/images/a/b.png"
};

struct Endpoint {
  using Handler = std::function<EndpointReply(const EndpointRequest&)>;

  std::string name;
  std::string method;  // HEAD requests reach the GET endpoint of their path
  std::string path;    // with PathMatch::kPrefix, ends in '/'
  Handler handler;
  PathMatch match = PathMatch::kExact;
};

class EndpointRegistry {
 public:
  // Throws std::invalid_argument when the name, or the method and path, are already taken, or
  // when a prefix does not end in '/'.
  void add(Endpoint endpoint);

  // The endpoint of the exact path, else the one with the longest prefix of it; null if none.
  const Endpoint* find(std::string_view method, std::string_view path) const;
  bool contains(std::string_view name) const;
  std::vector<std::string> names() const;

 private:
  std::vector<Endpoint> endpoints_;
};

}  // namespace orvex::backend
