// One consistent reading of the device context, as DeviceContext hands it out for one request:
// a plain value, copied out of the context queue, which nothing changes afterwards. Each field
// names the query item or header it becomes; an empty string or none means "not sent".
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/url_query_item.h"

namespace orvex {

struct DeviceContextSnapshot {
  std::string localeIdentifier;                  // "locale"
  std::string calendarIdentifier;                // "calendar"
  std::optional<std::string> measurementSystem;  // "units": "SI", "US" or "UK"
  std::optional<std::string> is24hDateFormat;    // "24h": "1"
  std::string timeZoneName;                      // "time_zone"
  std::string effectiveSystemLanguage;           // "esl"
  std::string preferredLanguages;                // "X-Zelmor-Languages", JSON array text
  std::string countryCode;                       // "cc", upper case
  std::string locationLatLng;                    // "latlng": "lat,long,accuracy"
  std::string locationSource;                    // "geosrc": "gps", "wifi", "cell", ...
  // "X-Zelmor-FuzzedLatLong" on downloads: whole degrees until the user has searched.
  std::string downloadLatLng;
  // "X-Zelmor-GeoMetadata": why no position is sent ("userno", "bagno.<source>").
  std::optional<std::string> geoMetadata;
  std::string storefront;                    // "storefront"
  std::optional<std::string> subscriptions;  // "X-Zelmor-Subscriptions", JSON array text
  bool managedAccount = false;               // "mode=managed"
  std::vector<URLQueryItem> debugItems;      // forced over any of their names
  std::string geoSession;                    // "X-Zelmor-GeoSession"
};

}  // namespace orvex
