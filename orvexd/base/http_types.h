// Plain records of the HTTP layer: a request, a response, and the timing a task reports.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/property_list.h"
#include "orvexd/base/time_types.h"

namespace orvex {

// Header names compare without regard to ASCII case, as HTTP wants.
struct HttpHeaderNameLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const;
};
using HttpHeaderMap = std::map<std::string, std::string, HttpHeaderNameLess>;

enum class HttpCachePolicy {
  // Answer from the session's URL cache when it holds a fresh response, revalidate a stale one.
  kUseProtocolCachePolicy,
  // Always go to the network; the answer may still be stored for later requests.
  kReloadIgnoringLocalCacheData,
};

struct HttpRequest {
  std::string url;  // absolute, already percent-encoded
  std::string method = "GET";
  HttpHeaderMap headers;
  std::string body;  // sent when non-empty (data tasks); upload tasks send a file instead
  // Longest wait for the next bytes of the answer; none takes the session's.
  std::optional<Duration> timeout;
  HttpCachePolicy cachePolicy = HttpCachePolicy::kUseProtocolCachePolicy;
  // The largest body a download task takes: a longer answer fails the task as one over 64 MiB
  // fails a data task (CURLE_FILESIZE_EXCEEDED). None: downloads are not bounded.
  std::optional<uint64_t> maxBodySize;
};

struct HttpResponse {
  std::string url;  // the URL that answered, after redirects
  int64_t statusCode = 0;
  HttpHeaderMap headers;
  // Whether the answer came from the session's URL cache rather than the network.
  bool fromCache = false;
};

// Timing data of one task, as a dictionary whose names all begin with kTaskTimingPrefix:
// - points in time (wall clock, seconds since 1970, as doubles) whose names contain "Start" or
//   "End": fetchStart, domainLookupStart/End, connectStart/End, secureConnectionStart/End,
//   requestStart/End, responseStart/End; a phase that did not happen is absent;
// - "connectionReused" (bool): the transfer opened no new connection;
// - "interfaceIdentifier" (string): the local network interface, such as "wlan0";
// - "peerAddress" (data): the peer's address in the BSD socket-address layout (length byte,
//   family byte 2 for IPv4 or 30 for IPv6, port in network order, then the address: at byte 4
//   for IPv4, at byte 8 for IPv6).
// A task answered from the URL cache has no timing data (an empty dictionary).
using TaskTimingData = PlistDictionary;
inline constexpr std::string_view kTaskTimingPrefix = "_orvexTiming_";

// "{Name: value; Name: value}", for logs.
std::string describeHeaders(const HttpHeaderMap& headers);

}  // namespace orvex
