// The response cache of an HTTP session: GET answers kept by URL, in memory up to one capacity
// and on disk, under a directory of their own, up to another. Freshness follows the answer's
// Cache-Control (max-age, no-store, no-cache) and Expires headers; an answer with a validator
// (ETag, Last-Modified) can be revalidated with a conditional request once stale.
//
// Thread-safe: sessions look answers up and store them from their network threads. Entries read
// back from disk are checked; a damaged or foreign file is dropped, never trusted.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/http_types.h"
#include "orvexd/platform/clock.h"

namespace orvex {

struct CachedResponse {
  HttpResponse response;
  std::string body;
  WallTime storedAt;
  // When the answer stops being fresh; none means it must be revalidated before each use.
  std::optional<WallTime> freshUntil;
};

// The file an entry is kept in on disk, and its reader, which checks every length against the
// bytes and gives none, with a reason in `why`, for a damaged file or one stored for another key.
std::string encodeUrlCacheEntry(const std::string& key, const CachedResponse& entry);
std::optional<CachedResponse> decodeUrlCacheEntry(std::string_view data, const std::string& key,
                                                  std::string& why);

class UrlCache {
 public:
  // `directory` is created when needed, 0700 and never through a symbolic link. The memory
  // capacity counts the bytes of stored URLs, headers and bodies; the disk capacity counts the
  // blocks the entry files take (st_blocks), so that many small answers cannot fill more of the
  // disk than their bytes suggest.
  UrlCache(uint64_t memoryCapacity, uint64_t diskCapacity, std::string directory, Clock& clock);
  ~UrlCache();
  UrlCache(const UrlCache&) = delete;
  UrlCache& operator=(const UrlCache&) = delete;

  uint64_t memoryCapacity() const;
  uint64_t diskCapacity() const;
  uint64_t currentMemoryUsage() const;
  uint64_t currentDiskUsage() const;

  // The stored answer for a request, fresh or stale.
  std::optional<CachedResponse> cachedResponseForRequest(const HttpRequest& request) const;
  // Stores an answer when HTTP allows it (GET, a cacheable status, no "no-store"); returns
  // whether it was stored.
  bool storeResponse(const HttpRequest& request, const HttpResponse& response,
                     const std::string& body);
  void removeResponseForRequest(const HttpRequest& request);
  void removeAllResponses();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex
