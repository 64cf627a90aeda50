// Turning what libcurl measured about one transfer into a task's timing dictionary
// (TaskTimingData, see http_types.h), and the address helpers that needs.
//
// Pure functions apart from localInterfaceForAddress(), which asks the kernel for the
// interface list, and makeTaskTimingData(), which remembers the last answer of that per thread;
// all may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/http_types.h"
#include "orvexd/base/property_list.h"
#include "orvexd/platform/clock.h"

namespace orvex {

// The full key of a timing entry: kTaskTimingPrefix followed by `name`.
std::string taskTimingKey(std::string_view name);

// What libcurl reports after (or during) a transfer. Times are microseconds after the transfer
// began, as libcurl's *_TIME_T infos give them; zero means the phase was not reached.
struct CurlTransferMetrics {
  int64_t nameLookupUs = 0;     // CURLINFO_NAMELOOKUP_TIME_T
  int64_t connectUs = 0;        // CURLINFO_CONNECT_TIME_T
  int64_t appConnectUs = 0;     // CURLINFO_APPCONNECT_TIME_T (TLS handshake done)
  int64_t preTransferUs = 0;    // CURLINFO_PRETRANSFER_TIME_T
  int64_t startTransferUs = 0;  // CURLINFO_STARTTRANSFER_TIME_T (first response byte)
  int64_t totalUs = 0;          // CURLINFO_TOTAL_TIME_T
  // When the last byte of a streamed request body was handed to libcurl, if known.
  std::optional<int64_t> uploadDoneUs;
  int64_t numConnects = 0;  // CURLINFO_NUM_CONNECTS: new connections the transfer opened
  bool tls = false;         // the final URL was https
  std::string localIp;      // CURLINFO_LOCAL_IP
  std::string primaryIp;    // CURLINFO_PRIMARY_IP
  int64_t primaryPort = 0;  // CURLINFO_PRIMARY_PORT
};

// The timing dictionary of a transfer that began at `fetchStart`. Phases that did not happen
// are left out: on a reused connection there are no lookup or connect entries, without TLS no
// secure-connection entries, and a transfer that never got an answer has no response entries.
TaskTimingData makeTaskTimingData(WallTime fetchStart, const CurlTransferMetrics& metrics);

// `address` (a numeric IPv4 or IPv6 address, an IPv6 one optionally with "%scope") and `port`
// in the BSD socket-address layout: IPv4 gives 16 bytes {16, 2, port (network order), address,
// 8 zero bytes}; IPv6 gives 28 bytes {28, 30, port, 4 zero bytes of flow info, address,
// scope id in host byte order, as the structure holds it}. Nothing for text that is not a numeric
// address or a port outside 0-65535.
std::optional<PlistData> encodeBsdSocketAddress(std::string_view address, int64_t port);

// The name of the local interface that has `address` ("lo" for 127.0.0.1), or nothing.
std::optional<std::string> localInterfaceForAddress(std::string_view address);

}  // namespace orvex
