// An answer as the URL cache keeps it, and the file it is kept in on disk. The reader checks
// every length against the bytes and gives none, with a reason in `why`, for a damaged file or
// one stored for another key.
#pragma once

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

std::string encodeUrlCacheEntry(const std::string& key, const CachedResponse& entry);
std::optional<CachedResponse> decodeUrlCacheEntry(std::string_view data, const std::string& key,
                                                  std::string& why);

}  // namespace orvex
