// Names shared across components: in-process notifications and defaults keys.
#pragma once

namespace orvex {

// In-process notifications (NotificationCenter).
inline constexpr const char* kORVStartupNotification = "ORVStartup";
inline constexpr const char* kORVBagChangeNotification = "ORVBagChangeNotification";
inline constexpr const char* kORVBagRefreshRequiredNotification = "ORVBagRefreshRequired";
inline constexpr const char* kORVUserGUIDChangeNotification = "ORVUserGUIDChangeNotification";
inline constexpr const char* kORVFileDownloadCompletedNotification =
    "ORVFileDownloadCompletedNotification";
inline constexpr const char* kORVFileDeletedNotification = "ORVFileDeletedNotification";
// Changes of the device context, posted by the request factory where it notices them: the
// device country (the locale's region or the ORVCountryCode override), the system time zone,
// the system locale, and the managed-account mode (ORVManagedAccount).
inline constexpr const char* kORVCountryCodeChangeNotification = "ORVCountryCodeChangeNotification";
inline constexpr const char* kORVTimeZoneChangeNotification = "ORVTimeZoneChangeNotification";
inline constexpr const char* kORVLocaleChangeNotification = "ORVLocaleChangeNotification";
inline constexpr const char* kORVDeviceManagementChangeNotification =
    "ORVDeviceManagementChangeNotification";

// Keys of the defaults store ($XDG_CONFIG_HOME/com.zelmor.orvexd/defaults.plist).
inline constexpr const char* kORVSharedSessionKey = "ORVSharedSession";
inline constexpr const char* kORVSessionSizeLimitKey = "ORVSessionSizeLimit";
inline constexpr const char* kORVSessionMaxAgeKey = "ORVSessionMaxAge";
inline constexpr const char* kORVNoParallaxKey = "ORVNoParallax";
inline constexpr const char* kORVPersistSessionsKey = "ORVPersistSessions";
inline constexpr const char* kORVNoQueryCacheKey = "ORVNoQueryCache";
inline constexpr const char* kORVBagURLKey = "ORVBagURL";
inline constexpr const char* kORVDebugParametersKey = "ORVDebugParameters";
inline constexpr const char* kTraceEnabledKey = "TraceEnabled";

// Device overrides of what the system says, for integrators and testing: the device country
// (replaces the locale's region), the store front, the keyboard input mode and the screen scale
// (used when a client gives none), and the managed-account mode.
inline constexpr const char* kORVCountryCodeKey = "ORVCountryCode";
inline constexpr const char* kORVStorefrontKey = "ORVStorefront";
inline constexpr const char* kORVKeyboardInputModeKey = "ORVKeyboardInputMode";
inline constexpr const char* kORVScreenScaleKey = "ORVScreenScale";
inline constexpr const char* kORVManagedAccountKey = "ORVManagedAccount";

}  // namespace orvex
