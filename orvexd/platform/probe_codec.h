// The JSON the probe helper prints and the daemon reads back: the locale snapshot and the list of
// installed applications. Reading checks size, depth and every field, since the text comes from
// another process that parsed files anyone may have written.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "orvexd/platform/installed_applications.h"
#include "orvexd/platform/locale_provider.h"

namespace orvex {

inline constexpr std::size_t kLocaleJsonMaxBytes = std::size_t{64} * 1024;

// {"localeIdentifier": "de_DE", "calendarIdentifier": "gregorian", "measurementSystem": "metric",
//  "hourCyclePattern": "HH", "timeZoneName": "Europe/Berlin", "preferredLanguages": ["de-DE"],
//  "effectiveSystemLanguage": "de", "regionCode": "DE"}
std::string localeSnapshotJson(const LocaleSnapshot& snapshot);
// None, with the reason in `problem`, for text that is not such an object within the limits.
std::optional<LocaleSnapshot> localeSnapshotFromJson(std::string_view text,
                                                     std::string* problem = nullptr);

// {"applications": [{"id": "org.example.A", "version": "1.2"}, {"id": "org.example.B"}],
//  "skippedFiles": 1}
std::string installedApplicationsJson(const InstalledApplicationList& list);
// The most text `limits` allow the list to take.
std::size_t installedApplicationsJsonMaxBytes(const InstalledApplicationLimits& limits);
// None, with the reason in `problem`, for text that is not such an object within `limits`, or
// whose applications are not sorted by identifier, one per identifier.
std::optional<InstalledApplicationList> installedApplicationsFromJson(
    std::string_view text, const InstalledApplicationLimits& limits,
    std::string* problem = nullptr);

}  // namespace orvex
