// How an HttpSession uses its URL cache. A GET of a data or download task that asks for the
// protocol's cache policy is answered from a fresh stored answer without a request, unless the
// request's own Cache-Control or Pragma forbids stored answers; a stale stored answer with a
// validator (ETag, Last-Modified) is revalidated with a conditional request, and a 304 answers
// with the stored body. What a GET is answered is stored as HTTP allows. A request with another
// method than GET or HEAD that succeeds makes the cache forget what it held for that URL.
//
// Used on the session's network thread; the UrlCache itself is thread-safe.
#pragma once

#include <memory>
#include <optional>

#include "orvexd/base/http_types.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/curl_transfer.h"
#include "orvexd/platform/url_cache.h"

namespace orvex {

class HttpSessionCache {
 public:
  // Without a cache nothing is looked up or stored.
  HttpSessionCache(std::shared_ptr<UrlCache> cache, Clock& clock);

  struct Lookup {
    std::optional<CachedResponse> answer;        // fresh and allowed: no request is sent
    std::optional<CachedResponse> revalidating;  // stale with a validator: ask conditionally
  };
  // What the cache holds for a task about to start.
  Lookup lookUp(const HttpRequest& request, HttpTaskKind kind) const;

  // Adds the stored answer's validators to the headers of its revalidation, unless the caller
  // set its own.
  static void addValidators(const CachedResponse& stored, HttpHeaderMap& headers);

  // A revalidation was answered 304: the stored entry takes the new header values and is stored
  // again. Returns it, its response marked as coming from the cache.
  CachedResponse revalidated(const HttpRequest& request, CachedResponse stored,
                             const HttpHeaderMap& newHeaders);

  // Stores the answer of a finished transfer where HTTP allows, or forgets the URL after a
  // successful unsafe request. `outcome` holds an answer.
  void remember(const HttpRequest& request, HttpTaskKind kind, const HttpTaskOutcome& outcome);

 private:
  const std::shared_ptr<UrlCache> cache_;
  Clock& clock_;
};

}  // namespace orvex
