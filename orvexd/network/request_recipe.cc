#include "orvexd/network/request_recipe.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/input_defaults.h"
#include "orvexd/platform/language_detector.h"

namespace orvex {

namespace {

const OrvexLog& requestLog() { return OrvexLogForCategory(kOrvexLogRequest); }

// The maps resource environment the daemon's requests are answered from.
constexpr const char* kGeoEnvironmentName = "PROD";

using S = RecipeStep;
using Location = RequestRecipe::LocationUse;

// The recipes, step by step in the order they are applied.
// clang-format off
constexpr RecipeStep kBagFetchSteps[] = {
    S::kBagVersion, S::kApiKey, S::kDebugItems, S::kLocale, S::kSystemLanguage,
    S::kLanguagesHeader, S::kCountry, S::kUserAgent};

constexpr RecipeStep kBagCacheSteps[] = {
    S::kBagVersion, S::kDebugItems, S::kLocale, S::kSystemLanguage, S::kCountry, S::kAgentItem};

constexpr RecipeStep kSearchSteps[] = {
    S::kQueryString, S::kSuggestedType, S::kClientItems, S::kDebugItems, S::kApiKey,
    S::kCardItem, S::kTopTopics, S::kCountry, S::kLocale, S::kSystemLanguage,
    S::kLanguagesHeader, S::kKeyboard, S::kCalendarUnitsAndClock, S::kGeoMetadata, S::kLocation,
    S::kSignature, S::kManagedMode, S::kStorefront, S::kSubscriptions, S::kUserGuid,
    S::kUserAgent, S::kScale, S::kGeoEnvironment, S::kGeoSession};

constexpr RecipeStep kZeroKeywordSteps[] = {
    S::kZeroKeywordType, S::kClientItems, S::kDebugItems, S::kApiKey, S::kLocale,
    S::kSystemLanguage, S::kLanguagesHeader, S::kKeyboard, S::kCalendarUnitsAndClock, S::kCountry,
    S::kGeoMetadata, S::kLocation, S::kStorefront, S::kSubscriptions, S::kManagedMode,
    S::kUserGuid, S::kUserAgent, S::kScale, S::kGeoEnvironment, S::kGeoSession};

constexpr RecipeStep kMoreResultsSteps[] = {
    S::kClientItems, S::kDebugItems, S::kApiKey, S::kLocale, S::kSystemLanguage,
    S::kLanguagesHeader, S::kLocation, S::kSignature, S::kStorefront, S::kSubscriptions,
    S::kManagedMode, S::kUserGuid, S::kUserAgent, S::kScale};

constexpr RecipeStep kLookupSteps[] = {
    S::kQueryString, S::kClientItems, S::kDebugItems, S::kApiKey, S::kLocale,
    S::kSystemLanguage, S::kLanguagesHeader, S::kKeyboard, S::kCountry, S::kGeoMetadata,
    S::kLocation, S::kStorefront, S::kSubscriptions, S::kLookupItems, S::kQueryLanguages,
    S::kManagedMode, S::kUserGuid, S::kUserAgent, S::kScale, S::kSignature,
    S::kGeoSession};

constexpr RecipeStep kCardSteps[] = {
    S::kClientItems, S::kDebugItems, S::kApiKey, S::kLocale, S::kSystemLanguage,
    S::kLanguagesHeader, S::kCountry, S::kLocation, S::kStorefront, S::kGeoMetadata,
    S::kUserGuid, S::kUserAgent, S::kScale, S::kSignature, S::kGeoSession,
    S::kGeoEnvironment, S::kSubscriptions};

constexpr RecipeStep kFileDownloadSteps[] = {
    S::kApiKey, S::kUserAgent, S::kFuzzedLatLong, S::kIfNoneMatch};

constexpr RecipeStep kFlusherUploadSteps[] = {
    S::kDebugItems, S::kApiKey, S::kCountry, S::kLocale, S::kLanguagesHeader, S::kUserAgent,
    S::kDigest, S::kDeflateEncoding};
// clang-format on

constexpr RequestRecipe kBagFetch{"bag", Location::kNone, kBagFetchSteps};
constexpr RequestRecipe kBagCache{"bag", Location::kNone, kBagCacheSteps};
constexpr RequestRecipe kSearch{"search", Location::kStart, kSearchSteps};
constexpr RequestRecipe kZeroKeyword{"search", Location::kNone, kZeroKeywordSteps};
constexpr RequestRecipe kMoreResults{"more results", Location::kStartUnlessEndpointHasLatLng,
                                     kMoreResultsSteps};
constexpr RequestRecipe kLookup{"search", Location::kStart, kLookupSteps};
constexpr RequestRecipe kCard{"card", Location::kNone, kCardSteps};
constexpr RequestRecipe kFileDownload{"download", Location::kNone, kFileDownloadSteps};
constexpr RequestRecipe kFlusherUpload{"feedback", Location::kNone, kFlusherUploadSteps};

std::optional<std::string> languageOf(const LanguageDetector* detector, const std::string& text) {
  if (text.empty() || detector == nullptr) return std::nullopt;
  std::string language = detector->languageOf(text);
  if (language.empty() || language == kUndeterminedLanguage) return std::nullopt;
  return language;
}

const char* selectionName(uint32_t selectionType) {
  switch (selectionType) {
    case kORVLookupSelectionHint:
      return "hint";
    case kORVLookupSelectionExplicit:
      return "explicit";
    default:
      return "default";
  }
}

void addScale(OrvexURLRequestBuilder& builder, const RecipeInputs& in) {
  double scale = in.query->scale;
  if (!(scale > 0) || !std::isfinite(scale)) {
    const auto deviceScale = in.defaults ? mainScreenScale(*in.defaults) : std::nullopt;
    if (!deviceScale) return;
    scale = *deviceScale;
  }
  builder.defaultHttpHeaderWithName("X-Zelmor-UI-Scale", formatOneDecimal(scale));
}

void addStep(OrvexURLRequestBuilder& builder, RecipeStep step, const DeviceContextSnapshot& ctx,
             const RecipeInputs& in) {
  const bool masked = (in.fieldMask & kORVFieldMaskNoLocation) != 0;
  switch (step) {
    case S::kBagVersion:
      if (in.version && !in.version->empty()) {
        builder.defaultQueryItemWithName("version", *in.version);
      }
      return;
    case S::kApiKey:
      builder.defaultQueryItemWithName("key", kORVApiKey);
      return;
    case S::kQueryString:
      builder.forceQueryItemWithName("q", in.query->queryString);
      return;
    case S::kSuggestedType:
      if ((in.query->triggerEvent | 2) == 10) builder.forceQueryItemWithName("qtype", "suggested");
      return;
    case S::kZeroKeywordType:
      builder.forceQueryItemWithName("qtype", "zkw");
      return;
    case S::kClientItems:
      builder.forceQueryItemsFromArray(in.query->queryItems);
      return;
    case S::kDebugItems:
      builder.forceQueryItemsFromArray(ctx.debugItems);
      return;
    case S::kCardItem:
      builder.defaultQueryItemWithName("card", "1");
      return;
    case S::kTopTopics:
      if (in.query->topics.empty()) return;
      try {
        builder.defaultHttpHeaderWithName("X-Zelmor-TopTopics",
                                          nlohmann::json(in.query->topics).dump());
      } catch (const nlohmann::json::exception& error) {
        requestLog().error("Error encoding top topics %@.", std::string(error.what()));
      }
      return;
    case S::kCountry:
      if (!ctx.countryCode.empty()) builder.defaultQueryItemWithName("cc", ctx.countryCode);
      return;
    case S::kLocale:
      builder.defaultQueryItemWithName("locale", ctx.localeIdentifier);
      return;
    case S::kSystemLanguage:
      if (!ctx.effectiveSystemLanguage.empty()) {
        builder.defaultQueryItemWithName("esl", ctx.effectiveSystemLanguage);
      }
      return;
    case S::kLanguagesHeader:
      if (!ctx.preferredLanguages.empty()) {
        builder.defaultHttpHeaderWithName("X-Zelmor-Languages", ctx.preferredLanguages);
      }
      return;
    case S::kKeyboard: {
      std::string mode = in.query->keyboardInputMode;
      if (mode.empty() && in.defaults) {
        mode = in.defaults->stringForKey(kORVKeyboardInputModeKey).value_or("");
      }
      if (!mode.empty()) builder.defaultQueryItemWithName("kb_ime", mode);
      return;
    }
    case S::kCalendarUnitsAndClock:
      if (!ctx.calendarIdentifier.empty()) {
        builder.defaultQueryItemWithName("calendar", ctx.calendarIdentifier);
      }
      if (!ctx.timeZoneName.empty())
        builder.defaultQueryItemWithName("time_zone", ctx.timeZoneName);
      if (ctx.measurementSystem) builder.defaultQueryItemWithName("units", *ctx.measurementSystem);
      if (ctx.is24hDateFormat) builder.defaultQueryItemWithName("24h", *ctx.is24hDateFormat);
      return;
    case S::kGeoMetadata:
      if (ctx.geoMetadata)
        builder.defaultHttpHeaderWithName("X-Zelmor-GeoMetadata", *ctx.geoMetadata);
      return;
    case S::kLocation:
      if (masked) return;
      if (!ctx.locationLatLng.empty())
        builder.defaultQueryItemWithName("latlng", ctx.locationLatLng);
      if (!ctx.locationSource.empty())
        builder.defaultQueryItemWithName("geosrc", ctx.locationSource);
      return;
    case S::kSignature:
      if (masked || in.whitelist == nullptr) return;
      if (auto signature = in.whitelist->whitelistSignature(); signature && !signature->empty()) {
        builder.defaultHttpHeaderWithName("X-Zelmor-Whitelisted-App-Signature", *signature);
      }
      return;
    case S::kManagedMode:
      if (ctx.managedAccount) builder.defaultQueryItemWithName("mode", "managed");
      return;
    case S::kStorefront:
      if (!ctx.storefront.empty()) builder.defaultQueryItemWithName("storefront", ctx.storefront);
      return;
    case S::kSubscriptions:
      if (ctx.subscriptions) {
        builder.defaultHttpHeaderWithName("X-Zelmor-Subscriptions", *ctx.subscriptions);
      }
      return;
    case S::kUserGuid:
      builder.defaultHttpHeaderWithName("X-Zelmor-UserGuid", in.userGuid->upperString());
      return;
    case S::kUserAgent:
      if (!in.userAgent.empty()) builder.defaultHttpHeaderWithName("User-Agent", in.userAgent);
      return;
    case S::kScale:
      addScale(builder, in);
      return;
    case S::kGeoEnvironment:
      if (in.bag->sendGeoEnvironmentHeader()) {
        builder.defaultHttpHeaderWithName("X-Zelmor-GeoEnvironment", kGeoEnvironmentName);
      }
      return;
    case S::kGeoSession:
      if (!ctx.geoSession.empty())
        builder.defaultHttpHeaderWithName("X-Zelmor-GeoSession", ctx.geoSession);
      return;
    case S::kLookupItems:
      builder.defaultQueryItemWithName("context", in.query->applicationBundleIdentifier);
      if (!in.query->hintDomain.empty()) {
        builder.defaultQueryItemWithName("ldomain", in.query->hintDomain);
      }
      builder.defaultQueryItemWithName("ltype", selectionName(in.query->selectionType));
      return;
    case S::kQueryLanguages:
      if (auto language = languageOf(in.language, in.query->queryString)) {
        builder.defaultQueryItemWithName("qlang", *language);
      }
      if (auto language = languageOf(in.language, in.query->contextText)) {
        builder.defaultQueryItemWithName("lctxlang", *language);
      }
      return;
    case S::kAgentItem:
      if (!in.userAgent.empty()) builder.defaultQueryItemWithName("agent", in.userAgent);
      return;
    case S::kFuzzedLatLong:
      if (in.includeLatLong && !ctx.downloadLatLng.empty()) {
        builder.defaultHttpHeaderWithName("X-Zelmor-FuzzedLatLong", ctx.downloadLatLng);
      }
      return;
    case S::kIfNoneMatch:
      if (in.version && !in.version->empty()) {
        builder.defaultHttpHeaderWithName("If-None-Match", *in.version);
      }
      return;
    case S::kDigest:
      builder.defaultHttpHeaderWithName("X-Zelmor-Digest", in.digest);
      return;
    case S::kDeflateEncoding:
      builder.forceHttpHeaderWithName("Content-Encoding", "deflate");
      return;
  }
}

}  // namespace

const RequestRecipe& RequestRecipe::forKind(Kind kind) {
  switch (kind) {
    case Kind::kBagFetch:
      return kBagFetch;
    case Kind::kBagCache:
      return kBagCache;
    case Kind::kSearch:
      return kSearch;
    case Kind::kZeroKeyword:
      return kZeroKeyword;
    case Kind::kMoreResults:
      return kMoreResults;
    case Kind::kLookup:
      return kLookup;
    case Kind::kCard:
      return kCard;
    case Kind::kFileDownload:
      return kFileDownload;
    case Kind::kFlusherUpload:
      break;
  }
  return kFlusherUpload;
}

void RequestRecipe::apply(OrvexURLRequestBuilder& builder, const DeviceContextSnapshot& context,
                          const RecipeInputs& inputs) const {
  for (const RecipeStep step : steps) addStep(builder, step, context, inputs);
}

}  // namespace orvex
