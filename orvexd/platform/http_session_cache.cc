#include "orvexd/platform/http_session_cache.h"

#include <strings.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "orvexd/base/text_util.h"
#include "orvexd/platform/http_download_file.h"

namespace orvex {

namespace {

bool requestForbidsStoredAnswer(const HttpRequest& request) {
  const auto contains = [&request](std::string_view name, std::string_view token) {
    auto found = request.headers.find(name);
    return found != request.headers.end() &&
           asciiLowercase(found->second).find(token) != std::string::npos;
  };
  return contains("Cache-Control", "no-cache") || contains("Cache-Control", "max-age=0") ||
         contains("Pragma", "no-cache");
}

}  // namespace

HttpSessionCache::HttpSessionCache(std::shared_ptr<UrlCache> cache, Clock& clock)
    : cache_(std::move(cache)), clock_(clock) {}

HttpSessionCache::Lookup HttpSessionCache::lookUp(const HttpRequest& request,
                                                  HttpTaskKind kind) const {
  Lookup lookup;
  if (!cache_ || kind == HttpTaskKind::kUpload || request.method != "GET" ||
      request.cachePolicy != HttpCachePolicy::kUseProtocolCachePolicy) {
    return lookup;
  }
  auto cached = cache_->cachedResponseForRequest(request);
  if (!cached) return lookup;
  const bool fresh = cached->freshUntil && *cached->freshUntil > clock_.wallNow();
  if (fresh && !requestForbidsStoredAnswer(request)) {
    lookup.answer = std::move(cached);
  } else if (cached->response.headers.contains("ETag") ||
             cached->response.headers.contains("Last-Modified")) {
    lookup.revalidating = std::move(cached);
  }
  return lookup;
}

void HttpSessionCache::addValidators(const CachedResponse& stored, HttpHeaderMap& headers) {
  const HttpHeaderMap& storedHeaders = stored.response.headers;
  if (auto etag = storedHeaders.find("ETag"); etag != storedHeaders.end()) {
    headers.try_emplace("If-None-Match", etag->second);
  }
  if (auto modified = storedHeaders.find("Last-Modified"); modified != storedHeaders.end()) {
    headers.try_emplace("If-Modified-Since", modified->second);
  }
}

CachedResponse HttpSessionCache::revalidated(const HttpRequest& request, CachedResponse stored,
                                             const HttpHeaderMap& newHeaders) {
  for (const auto& [name, value] : newHeaders) {
    if (strcasecmp(name.c_str(), "Content-Length") == 0 ||
        strcasecmp(name.c_str(), "Content-Encoding") == 0 ||
        strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
      continue;
    }
    stored.response.headers[name] = value;
  }
  stored.response.fromCache = false;
  if (cache_ && !cache_->storeResponse(request, stored.response, stored.body)) {
    cache_->removeResponseForRequest(request);
  }
  stored.response.fromCache = true;
  return stored;
}

void HttpSessionCache::remember(const HttpRequest& request, HttpTaskKind kind,
                                const HttpTaskOutcome& outcome) {
  if (!cache_ || !outcome.response) return;
  const HttpResponse& response = *outcome.response;
  if (request.method == "GET") {
    if (kind == HttpTaskKind::kData) {
      cache_->storeResponse(request, response, outcome.data);
    } else if (kind == HttpTaskKind::kDownload) {
      // Download bodies are read back only when the cache could take them at all.
      const uint64_t limit = std::max(cache_->diskCapacity(), cache_->memoryCapacity()) / 20;
      if (auto body = readDownloadFile(outcome.location, limit)) {
        cache_->storeResponse(request, response, *body);
      }
    }
  } else if (request.method != "HEAD" && response.statusCode >= 200 && response.statusCode < 400) {
    // A successful unsafe request changes the resource: forget what was stored for it.
    HttpRequest stored;
    stored.url = request.url;
    cache_->removeResponseForRequest(stored);
  }
}

}  // namespace orvex
