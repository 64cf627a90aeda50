#include "orvexd/platform/curl_transfer.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "orvexd/base/text_util.h"
#include "orvexd/platform/http_download_file.h"
#include "orvexd/platform/http_timing.h"

namespace orvex {

namespace {

constexpr size_t kMaxDataBodySize = size_t{64} << 20;  // 64 MiB
constexpr long kMaxRedirects = 10;

long clampToLong(int64_t value, int64_t minimum) {
  return static_cast<long>(std::clamp<int64_t>(value, minimum, LONG_MAX));
}

long millisecondsOf(Duration duration) {
  return clampToLong(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count(), 1);
}

long secondsRoundedUp(Duration duration) {
  return clampToLong(std::chrono::ceil<std::chrono::seconds>(duration).count(), 1);
}

std::string errnoText(int error) { return std::strerror(error); }

bool methodIs(const HttpRequest& request, std::string_view method) {
  return request.method == method;
}

// --- libcurl callbacks ---

size_t onHeaderLine(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  const size_t length = size * count;
  std::string_view line(buffer, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    // A new response begins (after a redirect or an interim 1xx): only the last one counts.
    transfer.responseHeaders.clear();
    transfer.lastHeaderName.clear();
    return length;
  }
  if (line.empty()) return length;
  if (line.front() == ' ' || line.front() == '\t') {
    // Obsolete line folding continues the previous field.
    auto previous = transfer.responseHeaders.find(transfer.lastHeaderName);
    if (previous != transfer.responseHeaders.end()) {
      previous->second += ' ';
      previous->second += trimWhitespace(line);
    }
    return length;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return length;
  std::string name(trimWhitespace(line.substr(0, colon)));
  std::string_view value = trimWhitespace(line.substr(colon + 1));
  if (name.empty()) return length;
  auto [entry, inserted] = transfer.responseHeaders.try_emplace(name, value);
  if (!inserted) {
    entry->second += ", ";
    entry->second += value;
  }
  transfer.lastHeaderName = std::move(name);
  return length;
}

size_t onBodyToMemory(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  const size_t length = size * count;
  if (transfer.body.size() + length > kMaxDataBodySize) {
    transfer.bodyTooLarge = true;
    return 0;  // makes libcurl stop with CURLE_WRITE_ERROR
  }
  transfer.body.append(buffer, length);
  return length;
}

size_t onBodyToFile(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  const size_t length = size * count;
  if (length > transfer.downloadLimit - transfer.downloaded) {
    transfer.bodyTooLarge = true;
    return 0;
  }
  transfer.downloaded += length;
  const std::error_code error = writeAll(
      transfer.downloadFd.get(), std::span(reinterpret_cast<const uint8_t*>(buffer), length));
  if (error) {
    transfer.downloadErrno = error.value();
    return 0;
  }
  return length;
}

size_t onReadUpload(char* buffer, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  const size_t wanted = size * count;
  for (;;) {
    const ssize_t got = ::read(transfer.uploadFd.get(), buffer, wanted);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return CURL_READFUNC_ABORT;
    if (got == 0 && wanted > 0) {
      curl_off_t elapsed = 0;
      if (curl_easy_getinfo(transfer.easy.get(), CURLINFO_TOTAL_TIME_T, &elapsed) == CURLE_OK) {
        transfer.uploadDoneUs = elapsed;
      }
    }
    return static_cast<size_t>(got);
  }
}

int onSeekUpload(void* user, curl_off_t offset, int origin) {
  auto& transfer = *static_cast<CurlTransfer*>(user);
  if (::lseek(transfer.uploadFd.get(), static_cast<off_t>(offset), origin) < 0) {
    return CURL_SEEKFUNC_FAIL;
  }
  transfer.uploadDoneUs.reset();
  return CURL_SEEKFUNC_OK;
}

}  // namespace

OrvexError httpCancelledError() {
  return OrvexError(kHttpErrorDomain, kHttpErrorCancelled, "cancelled");
}

OrvexError curlTransferError(CURLcode code, const char* detail) {
  std::string reason = curl_easy_strerror(code);
  if (detail != nullptr && *detail != '\0') {
    std::string_view text = trimWhitespace(detail);
    if (!text.empty()) {
      reason += ": ";
      reason += text;
    }
  }
  return OrvexError(kHttpErrorDomain, code, std::move(reason));
}

void CurlTransfer::openUploadFile(const std::string& uploadPath) {
  uploadFd = UniqueFd(::open(uploadPath.c_str(), O_RDONLY | O_CLOEXEC));
  uploadOpenErrno = uploadFd ? 0 : errno;
}

std::optional<OrvexError> CurlTransfer::configure(const HttpSessionConfiguration& config,
                                                  const HttpRequest& request,
                                                  HttpHeaderMap headerFields, HttpTaskKind kind,
                                                  const std::string& uploadPath,
                                                  const std::string& temporaryDirectory,
                                                  void* owner) {
  easy.reset(curl_easy_init());
  CURL* handle = easy.get();
  if (handle == nullptr) return curlTransferError(CURLE_OUT_OF_MEMORY, "cannot create a transfer");

  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PRIVATE, owner);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(
      handle, CURLOPT_HTTP_VERSION,
      static_cast<long>(config.multiplexing ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
  if (config.tcpFastOpen) curl_easy_setopt(handle, CURLOPT_TCP_FASTOPEN, 1L);
  if (!config.tlsSessionTickets) curl_easy_setopt(handle, CURLOPT_SSL_SESSIONID_CACHE, 0L);
  curl_easy_setopt(handle, CURLOPT_MAXAGE_CONN, secondsRoundedUp(config.idleConnectionTimeout));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, millisecondsOf(config.resourceTimeout));
  const Duration stallTimeout = request.timeout.value_or(config.requestTimeout);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, millisecondsOf(stallTimeout));
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, secondsRoundedUp(stallTimeout));
  if (!config.extraCaFile.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, config.extraCaFile.c_str());
  }
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &onHeaderLine);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);

  if (kind == HttpTaskKind::kUpload) {
    // Without this libcurl would label the file as a form.
    headerFields.try_emplace("Content-Type", "application/octet-stream");
  }
  for (const auto& [name, value] : headerFields) {
    // "Name;" sends a header with an empty value ("Name:" would remove libcurl's own).
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    curl_slist* extended = curl_slist_append(headers.get(), line.c_str());
    if (extended == nullptr) {
      return curlTransferError(CURLE_OUT_OF_MEMORY, "cannot build the request headers");
    }
    (void)headers.release();
    headers.reset(extended);
  }
  if (headers) curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());

  switch (kind) {
    case HttpTaskKind::kData:
      curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &onBodyToMemory);
      curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
      curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                       static_cast<curl_off_t>(kMaxDataBodySize));
      break;
    case HttpTaskKind::kDownload: {
      int fileError = 0;
      downloadFd = createDownloadFile(temporaryDirectory, downloadPath, fileError);
      if (!downloadFd) {
        return OrvexError(
            kHttpErrorDomain, CURLE_WRITE_ERROR,
            "cannot create a download file in " + temporaryDirectory + ": " + errnoText(fileError));
      }
      curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &onBodyToFile);
      curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
      if (request.maxBodySize) {
        downloadLimit = *request.maxBodySize;
        curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                         static_cast<curl_off_t>(std::min<uint64_t>(downloadLimit, INT64_MAX)));
      }
      break;
    }
    case HttpTaskKind::kUpload: {
      curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &onBodyToMemory);
      curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
      if (!uploadFd) openUploadFile(uploadPath);
      const int openError = uploadOpenErrno;
      struct stat status {};
      if (!uploadFd || ::fstat(uploadFd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return OrvexError(
            kHttpErrorDomain, CURLE_READ_ERROR,
            "cannot read upload file " + uploadPath + ": " +
                (uploadFd ? std::string("not a regular file") : errnoText(openError)));
      }
      curl_easy_setopt(handle, CURLOPT_READFUNCTION, &onReadUpload);
      curl_easy_setopt(handle, CURLOPT_READDATA, this);
      curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, &onSeekUpload);
      curl_easy_setopt(handle, CURLOPT_SEEKDATA, this);
      const auto size = static_cast<curl_off_t>(status.st_size);
      if (methodIs(request, "PUT")) {
        curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, size);
      } else {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, size);
        if (!methodIs(request, "POST")) {
          curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        }
      }
      return std::nullopt;
    }
  }

  // Method and body of data and download tasks.
  if (!request.body.empty() || methodIs(request, "POST")) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
    if (!methodIs(request, "POST")) {
      curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
  } else if (methodIs(request, "HEAD")) {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
  } else if (methodIs(request, "GET") || request.method.empty()) {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  return std::nullopt;
}

TaskTimingData CurlTransfer::collectTiming() const {
  CURL* handle = easy.get();
  CurlTransferMetrics metrics;
  const auto timeInfo = [handle](CURLINFO info) {
    curl_off_t value = 0;
    return curl_easy_getinfo(handle, info, &value) == CURLE_OK ? static_cast<int64_t>(value) : 0;
  };
  const auto textInfo = [handle](CURLINFO info) {
    char* value = nullptr;
    return curl_easy_getinfo(handle, info, &value) == CURLE_OK && value != nullptr
               ? std::string(value)
               : std::string();
  };
  metrics.nameLookupUs = timeInfo(CURLINFO_NAMELOOKUP_TIME_T);
  metrics.connectUs = timeInfo(CURLINFO_CONNECT_TIME_T);
  metrics.appConnectUs = timeInfo(CURLINFO_APPCONNECT_TIME_T);
  metrics.preTransferUs = timeInfo(CURLINFO_PRETRANSFER_TIME_T);
  metrics.startTransferUs = timeInfo(CURLINFO_STARTTRANSFER_TIME_T);
  metrics.totalUs = timeInfo(CURLINFO_TOTAL_TIME_T);
  metrics.uploadDoneUs = uploadDoneUs;
  long connects = 0;
  curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &connects);
  metrics.numConnects = connects;
  const std::string effectiveUrl = textInfo(CURLINFO_EFFECTIVE_URL);
  metrics.tls = effectiveUrl.size() >= 8 && strncasecmp(effectiveUrl.c_str(), "https://", 8) == 0;
  metrics.localIp = textInfo(CURLINFO_LOCAL_IP);
  metrics.primaryIp = textInfo(CURLINFO_PRIMARY_IP);
  long port = 0;
  curl_easy_getinfo(handle, CURLINFO_PRIMARY_PORT, &port);
  metrics.primaryPort = port;
  return makeTaskTimingData(fetchStart, metrics);
}

HttpTaskOutcome CurlTransfer::finish(CURLM* multi, CURLcode code, const std::string& requestUrl) {
  HttpTaskOutcome outcome;
  outcome.timing = collectTiming();
  long status = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  char* effectiveUrl = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl);
  std::string url = effectiveUrl != nullptr ? effectiveUrl : requestUrl;
  curl_multi_remove_handle(multi, easy.get());
  easy.reset();
  headers.reset();
  (void)uploadFd.close();

  // Closing can report a write that failed late.
  if (downloadFd) {
    const std::error_code closed = downloadFd.close();
    if (closed && downloadErrno == 0) {
      downloadErrno = closed.value();
      if (code == CURLE_OK) code = CURLE_WRITE_ERROR;
    }
  }

  if (code != CURLE_OK) {
    if (bodyTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
      const std::string limit =
          downloadPath.empty() ? "64 MiB" : std::to_string(downloadLimit).append(" bytes");
      outcome.error = OrvexError(kHttpErrorDomain, CURLE_FILESIZE_EXCEEDED,
                                 "response body larger than " + limit);
    } else if (downloadErrno != 0) {
      outcome.error = OrvexError(kHttpErrorDomain, CURLE_WRITE_ERROR,
                                 "cannot write download file: " + errnoText(downloadErrno));
    } else {
      outcome.error = curlTransferError(code, errorBuffer);
    }
    if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
    return outcome;
  }

  HttpResponse response;
  response.url = std::move(url);
  response.statusCode = status;
  response.headers = std::move(responseHeaders);
  outcome.response = std::move(response);
  outcome.data = std::move(body);
  outcome.location = downloadPath;
  return outcome;
}

void CurlTransfer::discard(CURLM* multi) {
  if (multi != nullptr && easy) curl_multi_remove_handle(multi, easy.get());
  easy.reset();
  headers.reset();
  (void)uploadFd.close();
  (void)downloadFd.close();
  if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
}

}  // namespace orvex
