// Builds every HTTP request the daemon sends: the bag fetch and the bag-cache key, the warm-up
// request, the five query kinds, resource downloads and the feedback upload.
//
// Each kind is a recipe (request_recipe.h): a fixed list of steps that add query items and
// headers from one snapshot of the device context, which the factory's DeviceContext keeps
// current. The snapshot is taken on the context queue; the request is then built on the
// caller's thread, so recipes may be called from any thread, the context queue included. They
// answer none when the bag lacks the recipe's endpoint or the endpoint URL does not parse.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "orvexd/base/http_types.h"
#include "orvexd/model/interfaces/network_request_factory.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/network/device_context.h"
#include "orvexd/network/request_recipe.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

class Assembly;

class ORVNetworkRequestFactory final : public NetworkRequestFactory {
 public:
  // The device context announces its changes in the factory's name.
  ORVNetworkRequestFactory(Assembly& assembly, DeviceContextServices services);
  // Starts the device context listening; call once the factory is in place.
  void start();
  ~ORVNetworkRequestFactory() override;

  DeviceContext& deviceContext() const { return *context_; }

  std::string deviceCountryCode() override;
  std::optional<HttpRequest> bagFetchRequest(const std::string& bagURL,
                                             const std::string& userAgent,
                                             const std::optional<std::string>& version) override;
  std::optional<HttpRequest> bagCacheRequest(const std::string& bagURL,
                                             const std::string& userAgent,
                                             const std::optional<std::string>& version) override;
  std::optional<HttpRequest> warmRequest(const std::string& url) override;
  std::optional<HttpRequest> searchRequest(const ORVRequest& query, const ORVBag& bag,
                                           const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> zeroKeywordRequest(const ORVRequest& query, const ORVBag& bag,
                                                const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> moreResultsRequest(const ORVRequest& query, const ORVBag& bag,
                                                const Uuid& userGuid, unsigned fieldMask) override;
  std::optional<HttpRequest> lookupRequest(const ORVRequest& query, const ORVBag& bag,
                                           const Uuid& userGuid) override;
  std::optional<HttpRequest> cardRequest(const ORVRequest& query, const ORVBag& bag,
                                         const Uuid& userGuid) override;
  std::optional<HttpRequest> fileDownloadRequest(const std::string& url, const std::string& version,
                                                 bool includeLatLong) override;
  std::optional<HttpRequest> flusherUploadRequest(const std::string& url, Duration timeout,
                                                  const std::string& digest) override;
  void setPerformedSearch() override;
  std::string geoSessionEntityString() override;

 private:
  // The recipe of `kind` applied to the endpoint and a snapshot taken now; none without a usable
  // endpoint.
  std::optional<OrvexURLRequestBuilder> _build(RequestRecipe::Kind kind,
                                               const std::optional<std::string>& endpoint,
                                               RecipeInputs inputs);
  // A query's inputs: the query, the bag, the user and the bag's user agent.
  RecipeInputs _queryInputs(const ORVRequest& query, const ORVBag& bag, const Uuid& userGuid,
                            unsigned fieldMask) const;
  // A query request from its builder: the time-out is the bag's.
  static HttpRequest _queryRequest(const OrvexURLRequestBuilder& builder, const ORVBag& bag);

  Assembly& assembly_;
  // Made by the constructor, stopped by the destructor; thread-safe itself.
  std::shared_ptr<DeviceContext> context_;
};

}  // namespace orvex
