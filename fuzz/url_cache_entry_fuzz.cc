// Feeds arbitrary bytes to the reader of the URL cache's entry files, as the file stored for a
// fixed URL (the seeds are entries for it). An entry that is read must write the same file again:
// the reader keeps everything the writer puts, and nothing it has checked is dropped. Its headers
// then go through what the cache makes of a new answer's.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/virtual_clock.h"

namespace {

using orvex::fuzz::check;

const std::string kKey = "https://search.example/search?q=wea";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view file(reinterpret_cast<const char*>(data), size);
  std::string why;
  const auto entry = orvex::decodeUrlCacheEntry(file, kKey, why);
  check(entry.has_value() == why.empty());
  if (!entry) return 0;
  check(entry->response.fromCache);

  const std::string written = orvex::encodeUrlCacheEntry(kKey, *entry);
  const auto back = orvex::decodeUrlCacheEntry(written, kKey, why);
  check(back.has_value());
  check(back->body == entry->body && back->response.url == entry->response.url);
  check(back->response.statusCode == entry->response.statusCode);
  check(back->response.headers == entry->response.headers);
  check(back->storedAt == entry->storedAt && back->freshUntil == entry->freshUntil);
  check(orvex::encodeUrlCacheEntry(kKey, *back) == written);

  // The entry's headers as a fresh answer's: what the cache makes of Cache-Control, Age, Date,
  // Expires and Last-Modified, in a cache of its own in memory.
  static orvex::VirtualClock clock;
  static orvex::UrlCache cache(1 << 20, 0, "", clock);
  cache.removeAllResponses();
  orvex::HttpRequest request;
  request.url = kKey;
  if (cache.storeResponse(request, entry->response, entry->body)) {
    const auto cached = cache.cachedResponseForRequest(request);
    check(cached && cached->body == entry->body && cached->storedAt == clock.wallNow());
  }
  // Headers may come in another order, and a name repeated in another case is kept once.
  check(written.size() <= file.size());
  return 0;
}
