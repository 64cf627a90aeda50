// The recipes the request factory builds its requests by: for each kind of request, the list of
// steps that add its query items and headers, in order, from one device-context snapshot and the
// request's own inputs. Each step is written once (in request_recipe.cc); a recipe is data.
//
// Order matters where names meet: a forced item replaces one of its name already present, a
// default one is kept out by it, so the query string, the query type, the client's own items
// and the debug items, all forced, come first and in that order, and the endpoint's own items
// win over every default one. On the wire items are sorted by name whatever their order here.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/network/device_context_snapshot.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

class AppWhitelistController;
class DefaultsStore;
class LanguageDetector;

// Field-mask bit that leaves out the precise location and the installed-app signature.
inline constexpr unsigned kORVFieldMaskNoLocation = 1;
// The API key every query carries.
inline constexpr const char* kORVApiKey = "osprey4471";

enum class RecipeStep {
  kBagVersion,             // "version": the bag version asked for
  kApiKey,                 // "key"
  kQueryString,            // "q", forced
  kSuggestedType,          // "qtype=suggested", forced, for a suggestion's trigger events
  kZeroKeywordType,        // "qtype=zkw", forced
  kClientItems,            // the client's own items, forced
  kDebugItems,             // the debug parameters, forced
  kCardItem,               // "card=1"
  kTopTopics,              // "X-Zelmor-TopTopics"
  kCountry,                // "cc"
  kLocale,                 // "locale"
  kSystemLanguage,         // "esl"
  kLanguagesHeader,        // "X-Zelmor-Languages"
  kKeyboard,               // "kb_ime": the client's input mode, else the device's
  kCalendarUnitsAndClock,  // "calendar", "time_zone", "units", "24h"
  kGeoMetadata,            // "X-Zelmor-GeoMetadata"
  kLocation,               // "latlng", "geosrc", unless the field mask leaves them out
  kSignature,              // "X-Zelmor-Whitelisted-App-Signature", unless masked likewise
  kManagedMode,            // "mode=managed"
  kStorefront,             // "storefront"
  kSubscriptions,          // "X-Zelmor-Subscriptions"
  kUserGuid,               // "X-Zelmor-UserGuid"
  kUserAgent,              // "User-Agent"
  kScale,                  // "X-Zelmor-UI-Scale": the client's, else the device's
  kGeoEnvironment,         // "X-Zelmor-GeoEnvironment" when the bag asks for it
  kGeoSession,             // "X-Zelmor-GeoSession"
  kLookupItems,            // "context", "ldomain", "ltype"
  kQueryLanguages,         // "qlang", "lctxlang": the languages of the text and its context
  kAgentItem,              // "agent": the bag-cache key's user agent
  kFuzzedLatLong,          // "X-Zelmor-FuzzedLatLong" when the download asks for it
  kIfNoneMatch,            // "If-None-Match": the version of the copy held
  kDigest,                 // "X-Zelmor-Digest"
  kDeflateEncoding,        // "Content-Encoding: deflate", forced
};

// What the steps read besides the snapshot. Pointers a recipe does not use may stay null.
struct RecipeInputs {
  const ORVRequest* query = nullptr;
  const ORVBag* bag = nullptr;
  const Uuid* userGuid = nullptr;
  unsigned fieldMask = 0;
  std::string userAgent;
  // The bag version asked for, or the version of a download's copy held.
  std::optional<std::string> version;
  bool includeLatLong = false;
  std::string digest;
  // Read at the time of the request: the device's keyboard and screen scale, the signature,
  // and the detector for the lookup's languages (each callable from any thread).
  const DefaultsStore* defaults = nullptr;
  const AppWhitelistController* whitelist = nullptr;
  const LanguageDetector* language = nullptr;
};

struct RequestRecipe {
  enum class Kind {
    kBagFetch,
    kBagCache,
    kSearch,
    kZeroKeyword,
    kMoreResults,
    kLookup,
    kCard,
    kFileDownload,
    kFlusherUpload,
  };
  // Whether building the request starts the location updates.
  enum class LocationUse { kNone, kStart, kStartUnlessEndpointHasLatLng };

  static const RequestRecipe& forKind(Kind kind);

  // Names the endpoint in the log line of a URL that does not parse.
  const char* endpointName;
  LocationUse location;
  std::span<const RecipeStep> steps;

  void apply(OrvexURLRequestBuilder& builder, const DeviceContextSnapshot& context,
             const RecipeInputs& inputs) const;
};

}  // namespace orvex
