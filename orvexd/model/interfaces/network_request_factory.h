// What components need of the request factory: every HTTP request the daemon sends, built from
// one snapshot of the device context. Recipes are synchronous and may be called from any thread;
// they answer none when the bag lacks the recipe's endpoint. ORVNetworkRequestFactory is the
// implementation.
#pragma once

#include <optional>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/base/time_types.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"

namespace orvex {

class Uuid;

class NetworkRequestFactory {
 public:
  virtual ~NetworkRequestFactory() = default;

  // The device country as the bag endpoint depends on it, the owner's override read afresh.
  virtual std::string deviceCountryCode() = 0;
  // `bagURL` is the bag endpoint for deviceCountryCode().
  virtual std::optional<HttpRequest> bagFetchRequest(const std::string& bagURL,
                                                     const std::string& userAgent,
                                                     const std::optional<std::string>& version) = 0;
  // The bag's staleness key: its URL changes whenever something the bag depends on changes.
  virtual std::optional<HttpRequest> bagCacheRequest(const std::string& bagURL,
                                                     const std::string& userAgent,
                                                     const std::optional<std::string>& version) = 0;
  virtual std::optional<HttpRequest> warmRequest(const std::string& url) = 0;
  virtual std::optional<HttpRequest> searchRequest(const ORVRequest& query, const ORVBag& bag,
                                                   const Uuid& userGuid,
                                                   unsigned fieldMask = 0) = 0;
  virtual std::optional<HttpRequest> zeroKeywordRequest(const ORVRequest& query, const ORVBag& bag,
                                                        const Uuid& userGuid,
                                                        unsigned fieldMask = 0) = 0;
  virtual std::optional<HttpRequest> moreResultsRequest(const ORVRequest& query, const ORVBag& bag,
                                                        const Uuid& userGuid,
                                                        unsigned fieldMask = 0) = 0;
  virtual std::optional<HttpRequest> lookupRequest(const ORVRequest& query, const ORVBag& bag,
                                                   const Uuid& userGuid) = 0;
  virtual std::optional<HttpRequest> cardRequest(const ORVRequest& query, const ORVBag& bag,
                                                 const Uuid& userGuid) = 0;
  virtual std::optional<HttpRequest> fileDownloadRequest(const std::string& url,
                                                         const std::string& version,
                                                         bool includeLatLong) = 0;
  virtual std::optional<HttpRequest> flusherUploadRequest(const std::string& url, Duration timeout,
                                                          const std::string& digest) = 0;

  // The user has searched: downloads may carry the precise position from now on.
  virtual void setPerformedSearch() = 0;
  // The maps user-session identifier sent as "X-Zelmor-GeoSession".
  virtual std::string geoSessionEntityString() = 0;
};

}  // namespace orvex
