// The daemon's answer to a query: the back-end's answer as it came, with what the client needs
// to use it, and, when the client asked for a verbose reply, the HTTP exchange that produced it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvex {

using ORVHeaderList = std::vector<std::pair<std::string, std::string>>;

struct ORVHttpRequestInfo {
  std::string url;
  std::string method;
  ORVHeaderList headers;
  friend bool operator==(const ORVHttpRequestInfo&, const ORVHttpRequestInfo&) = default;
};

struct ORVHttpResponseInfo {
  std::string url;
  int64_t statusCode = 0;
  ORVHeaderList headers;
  friend bool operator==(const ORVHttpResponseInfo&, const ORVHttpResponseInfo&) = default;
};

struct ORVReply {
  double scale = 0;                    // the scale the answer was made for
  std::string rawResponse;             // the back-end's answer, JSON text
  std::string geoSessionEntityString;  // the maps user-session entity, when there is one
  // Verbose replies only.
  std::optional<ORVHttpRequestInfo> httpRequest;
  std::optional<ORVHttpResponseInfo> httpResponse;
  friend bool operator==(const ORVReply&, const ORVReply&) = default;
};

}  // namespace orvex
