#include "orvexd/network/network_request_factory.h"

#include <chrono>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"

namespace orvex {

namespace {

const OrvexLog& requestLog() { return OrvexLogForCategory(kOrvexLogRequest); }

std::optional<OrvexURLRequestBuilder> builderForEndpoint(const std::optional<std::string>& url,
                                                         const char* recipe) {
  if (!url) return std::nullopt;
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(*url);
  if (!builder) requestLog().error("invalid %s URL %@", recipe, *url);
  return builder;
}

}  // namespace

ORVNetworkRequestFactory::ORVNetworkRequestFactory(Assembly& assembly,
                                                   DeviceContextServices services)
    : assembly_(assembly),
      context_(std::make_shared<DeviceContext>(
          assembly, std::move(services),
          // Observers compare the sender with the factory as the Assembly holds it.
          static_cast<const NetworkRequestFactory*>(this))) {}

ORVNetworkRequestFactory::~ORVNetworkRequestFactory() { context_->stop(); }

void ORVNetworkRequestFactory::start() { context_->start(); }

std::optional<OrvexURLRequestBuilder> ORVNetworkRequestFactory::_build(
    RequestRecipe::Kind kind, const std::optional<std::string>& endpoint, RecipeInputs inputs) {
  const RequestRecipe& recipe = RequestRecipe::forKind(kind);
  auto builder = builderForEndpoint(endpoint, recipe.endpointName);
  // The snapshot is taken even without an endpoint: it reads the overrides afresh, and a
  // changed country asks for a fresh bag whatever became of this request.
  const bool startLocation =
      builder && (recipe.location == RequestRecipe::LocationUse::kStart ||
                  (recipe.location == RequestRecipe::LocationUse::kStartUnlessEndpointHasLatLng &&
                   !builder->containsQueryItemWithName("latlng")));
  const DeviceContextSnapshot context = context_->snapshot(startLocation);
  if (!builder) return std::nullopt;
  inputs.defaults = assembly_.userDefaults.get();
  inputs.whitelist = assembly_.appWhitelistController.get();
  inputs.language = context_->languageDetector();
  recipe.apply(*builder, context, inputs);
  return builder;
}

RecipeInputs ORVNetworkRequestFactory::_queryInputs(const ORVRequest& query, const ORVBag& bag,
                                                    const Uuid& userGuid,
                                                    unsigned fieldMask) const {
  RecipeInputs inputs;
  inputs.query = &query;
  inputs.bag = &bag;
  inputs.userGuid = &userGuid;
  inputs.fieldMask = fieldMask;
  inputs.userAgent = bag.userAgent();
  return inputs;
}

HttpRequest ORVNetworkRequestFactory::_queryRequest(const OrvexURLRequestBuilder& builder,
                                                    const ORVBag& bag) {
  HttpRequest request = builder.createMutableUrlRequest();
  if (auto timeout = bag.timeoutIntervalForRequest()) {
    request.timeout = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(*timeout));
  }
  return request;
}

// ---------------------------------------------------------------------------------------------
// Context

std::string ORVNetworkRequestFactory::deviceCountryCode() { return context_->countryCode(); }

void ORVNetworkRequestFactory::setPerformedSearch() { context_->setPerformedSearch(); }

std::string ORVNetworkRequestFactory::geoSessionEntityString() {
  return context_->geoSessionEntityString();
}

// ---------------------------------------------------------------------------------------------
// Recipes

std::optional<HttpRequest> ORVNetworkRequestFactory::bagFetchRequest(
    const std::string& bagURL, const std::string& userAgent,
    const std::optional<std::string>& version) {
  RecipeInputs inputs;
  inputs.userAgent = userAgent;
  inputs.version = version;
  auto builder = _build(RequestRecipe::Kind::kBagFetch, bagURL, std::move(inputs));
  if (!builder) return std::nullopt;
  HttpRequest request = builder->createMutableUrlRequest();
  request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
  return request;
}

std::optional<HttpRequest> ORVNetworkRequestFactory::bagCacheRequest(
    const std::string& bagURL, const std::string& userAgent,
    const std::optional<std::string>& version) {
  RecipeInputs inputs;
  inputs.userAgent = userAgent;
  inputs.version = version;
  auto builder = _build(RequestRecipe::Kind::kBagCache, bagURL, std::move(inputs));
  if (!builder) return std::nullopt;
  return builder->createMutableUrlRequest();
}

// The warm-up request is the bag's URL as it stands, sent past any cache.
std::optional<HttpRequest> ORVNetworkRequestFactory::warmRequest(const std::string& url) {
  (void)context_->countryCode();  // reads the overrides afresh, as every recipe does
  if (!builderForEndpoint(url, "warm")) return std::nullopt;
  HttpRequest request;
  request.url = url;
  request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
  return request;
}

std::optional<HttpRequest> ORVNetworkRequestFactory::searchRequest(const ORVRequest& query,
                                                                   const ORVBag& bag,
                                                                   const Uuid& userGuid,
                                                                   unsigned fieldMask) {
  auto builder = _build(RequestRecipe::Kind::kSearch, bag.searchURL(),
                        _queryInputs(query, bag, userGuid, fieldMask));
  if (!builder) return std::nullopt;
  return _queryRequest(*builder, bag);
}

std::optional<HttpRequest> ORVNetworkRequestFactory::zeroKeywordRequest(const ORVRequest& query,
                                                                        const ORVBag& bag,
                                                                        const Uuid& userGuid,
                                                                        unsigned fieldMask) {
  auto builder = _build(RequestRecipe::Kind::kZeroKeyword, bag.searchURL(),
                        _queryInputs(query, bag, userGuid, fieldMask));
  if (!builder) return std::nullopt;
  return _queryRequest(*builder, bag);
}

std::optional<HttpRequest> ORVNetworkRequestFactory::moreResultsRequest(const ORVRequest& query,
                                                                        const ORVBag& bag,
                                                                        const Uuid& userGuid,
                                                                        unsigned fieldMask) {
  auto builder = _build(RequestRecipe::Kind::kMoreResults, bag.moreResultsURL(),
                        _queryInputs(query, bag, userGuid, fieldMask));
  if (!builder) return std::nullopt;
  return _queryRequest(*builder, bag);
}

std::optional<HttpRequest> ORVNetworkRequestFactory::lookupRequest(const ORVRequest& query,
                                                                   const ORVBag& bag,
                                                                   const Uuid& userGuid) {
  auto builder = _build(RequestRecipe::Kind::kLookup, bag.searchURL(),
                        _queryInputs(query, bag, userGuid, /*fieldMask=*/0));
  if (!builder) return std::nullopt;
  return _queryRequest(*builder, bag);
}

std::optional<HttpRequest> ORVNetworkRequestFactory::cardRequest(const ORVRequest& query,
                                                                 const ORVBag& bag,
                                                                 const Uuid& userGuid) {
  auto builder = _build(RequestRecipe::Kind::kCard, bag.cardURL(),
                        _queryInputs(query, bag, userGuid, /*fieldMask=*/0));
  if (!builder) return std::nullopt;
  return _queryRequest(*builder, bag);
}

std::optional<HttpRequest> ORVNetworkRequestFactory::fileDownloadRequest(const std::string& url,
                                                                         const std::string& version,
                                                                         bool includeLatLong) {
  RecipeInputs inputs;
  // The agent the client framework makes for the daemon's identifier and the download agent.
  inputs.userAgent = kORVDownloadAgent;
  inputs.version = version;
  inputs.includeLatLong = includeLatLong;
  auto builder = _build(RequestRecipe::Kind::kFileDownload, url, std::move(inputs));
  if (!builder) return std::nullopt;
  return builder->createMutableUrlRequest();
}

std::optional<HttpRequest> ORVNetworkRequestFactory::flusherUploadRequest(
    const std::string& url, Duration timeout, const std::string& digest) {
  RecipeInputs inputs;
  inputs.userAgent = kORVOrvexdNameVersion;
  inputs.digest = digest;
  auto builder = _build(RequestRecipe::Kind::kFlusherUpload, url, std::move(inputs));
  if (!builder) return std::nullopt;
  HttpRequest request = builder->createMutableUrlRequest();
  request.method = "POST";
  request.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
  request.timeout = timeout;
  return request;
}

}  // namespace orvex
