// The response cache of an HTTP session: GET answers kept by URL, in memory up to one capacity
// and on disk, under a directory of their own, up to another. Freshness follows the answer's
// Cache-Control (max-age, no-store, no-cache) and Expires headers; an answer with a validator
// (ETag, Last-Modified) can be revalidated with a conditional request once stale.
//
// Besides these, the cache keeps mapped entries (images): the downloaded file itself, moved into
// the cache's directory and mapped, so that its bytes are never copied into memory. They count
// against the disk capacity like the other entries, at most kMaxMappedEntries of them, and are
// kept until evicted or removed whatever their freshness (an image's URL names its content).
// They do not outlive the process: the files a previous run left are deleted when the directory
// is scanned, so no mapped entry is ever read back from disk. Only mappedResponseForRequest sees
// them; the HTTP sessions' lookups do not.
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
#include "orvexd/platform/mapped_file.h"
#include "orvexd/platform/url_cache_codec.h"

namespace orvex {

// An answer kept as a file of its own and mapped (see storeMappedResponse).
struct MappedCachedResponse {
  HttpResponse response;
  std::shared_ptr<const MappedFile> body;
};

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
  // Removes the entry of the request's URL, mapped or not.
  void removeResponseForRequest(const HttpRequest& request);
  void removeAllResponses();

  static constexpr size_t kMaxMappedEntries = 4096;
  // Moves the file at `path` into the cache's directory and keeps it, with `body` its mapping,
  // for the request's URL (in place of an earlier mapped entry of that URL). When the file
  // cannot be renamed there (another file system) it is copied and the copy mapped. Returns
  // whether the entry was kept: not without a usable directory, for a request other than GET, or
  // for a body larger than an entry may be; the file is then left where it was.
  bool storeMappedResponse(const HttpRequest& request, const HttpResponse& response,
                           const std::string& path, std::shared_ptr<const MappedFile> body);
  // The mapped entry of the request's URL. Its body stays valid for as long as the caller holds
  // it, even when the entry is evicted (and its file unlinked) meanwhile.
  std::optional<MappedCachedResponse> mappedResponseForRequest(const HttpRequest& request) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex
