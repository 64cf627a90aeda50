// One libcurl transfer of an HttpSession: the easy handle, the options it is set up with, the
// callbacks that collect the answer (headers; the body in memory or in a download file; an
// upload's body streamed from its file), and what libcurl measured about it.
//
// How the session's configuration maps onto libcurl, on every easy handle:
// - multiplexing: CURLOPT_HTTP_VERSION CURL_HTTP_VERSION_2TLS (HTTP/2 when TLS negotiates it);
//   otherwise HTTP/1.1. (The session sets CURLMOPT_PIPELINING on its multi handle to match.)
// - tcpFastOpen: CURLOPT_TCP_FASTOPEN, only when set.
// - tlsSessionTickets == false: CURLOPT_SSL_SESSIONID_CACHE 0 (no TLS session resumption).
// - requestTimeout (or the request's own timeout): CURLOPT_CONNECTTIMEOUT_MS, and
//   CURLOPT_LOW_SPEED_LIMIT 1 byte/s over CURLOPT_LOW_SPEED_TIME (whole seconds, rounded up),
//   which aborts a transfer that receives nothing for that long.
// - resourceTimeout: CURLOPT_TIMEOUT_MS for the whole transfer.
// - idleConnectionTimeout: CURLOPT_MAXAGE_CONN (whole seconds, rounded up).
// - extraCaFile: CURLOPT_CAINFO. It replaces the system bundle for the session, so the file must
//   hold every authority the session trusts.
// - cookies: the cookie engine is never enabled, so nothing is stored or sent.
// Always: no signals (CURLOPT_NOSIGNAL), every content encoding libcurl decodes
// (CURLOPT_ACCEPT_ENCODING ""), redirects followed up to 10 times, http and https only.
//
// A transfer is touched by its session's network thread only.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <optional>
#include <string>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/http_types.h"
#include "orvexd/base/orvex_error.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/url_cache.h"

namespace orvex {

using CurlEasyHandle = CHandle<CURL, &curl_easy_cleanup>;
using CurlHeaderList = CHandle<curl_slist, &curl_slist_free_all>;

// Where a task's answer goes and where its request body comes from.
enum class HttpTaskKind {
  kData,      // body in memory
  kDownload,  // body in a download file
  kUpload,    // request body streamed from a file, answer body in memory
};

// Everything a task carries to its completion.
struct HttpTaskOutcome {
  std::optional<HttpResponse> response;
  std::optional<OrvexError> error;
  std::string data;      // data and upload tasks
  std::string location;  // download tasks
  TaskTimingData timing;
};

// The error a cancelled task completes with.
OrvexError httpCancelledError();
// A libcurl failure, with the detail libcurl wrote into the error buffer, if any.
OrvexError curlTransferError(CURLcode code, const char* detail);

struct CurlTransfer {
  // Makes the easy handle and sets every option for `request`. `headers` are the headers to
  // send (the request's own, plus the validators of a revalidation); `owner` becomes the
  // handle's CURLOPT_PRIVATE. A download gets a new file in `temporaryDirectory`; an upload opens
  // `uploadPath`. Returns the error when the transfer cannot be set up; discard() cleans up.
  std::optional<OrvexError> configure(const HttpSessionConfiguration& config,
                                      const HttpRequest& request, HttpHeaderMap headers,
                                      HttpTaskKind kind, const std::string& uploadPath,
                                      const std::string& temporaryDirectory, void* owner);

  // Opens the file an upload sends, ahead of configure() (which otherwise opens it itself).
  void openUploadFile(const std::string& uploadPath);

  // The timing dictionary of what libcurl measured so far.
  TaskTimingData collectTiming() const;

  // Takes a transfer that libcurl ended with `code` out of `multi` and makes its outcome: the
  // answer, or the transport error (the download file is removed then). `requestUrl` stands in
  // when libcurl knows no effective URL.
  HttpTaskOutcome finish(CURLM* multi, CURLcode code, const std::string& requestUrl);

  // Drops a transfer that will not finish: out of `multi` (none when it was never added), its
  // handles freed, its files closed and the download file removed.
  void discard(CURLM* multi);

  CurlHeaderList headers;  // declared before `easy` so that it outlives the handle that uses it
  CurlEasyHandle easy;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  WallTime fetchStart;

  HttpHeaderMap responseHeaders;
  std::string lastHeaderName;
  std::string body;
  bool bodyTooLarge = false;

  UniqueFd downloadFd;
  std::string downloadPath;
  int downloadErrno = 0;
  uint64_t downloaded = 0;
  uint64_t downloadLimit = UINT64_MAX;  // the request's maxBodySize

  UniqueFd uploadFd;
  int uploadOpenErrno = 0;  // why openUploadFile() failed
  std::optional<int64_t> uploadDoneUs;

  // The stored answer a conditional request is revalidating.
  std::optional<CachedResponse> revalidating;
};

}  // namespace orvex
