// The endpoints the back-end serves, by name: each is a method, an exact path and a handler.
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
};

struct EndpointReply {
  int status = 200;
  std::string contentType;  // none for an empty body
  std::string body;
  HeaderList headers;
};

struct Endpoint {
  using Handler = std::function<EndpointReply(const EndpointRequest&)>;

  std::string name;
  std::string method;  // HEAD requests reach the GET endpoint of their path
  std::string path;
  Handler handler;
};

class EndpointRegistry {
 public:
  // Throws std::invalid_argument when the name, or the method and path, are already taken.
  void add(Endpoint endpoint);

  const Endpoint* find(std::string_view method, std::string_view path) const;
  bool contains(std::string_view name) const;
  std::vector<std::string> names() const;

 private:
  std::vector<Endpoint> endpoints_;
};

}  // namespace orvex::backend
