// Every name the daemon shares with another process or between its components: its bus name,
// object paths, interfaces and errors; the log subsystem; system-wide and in-process
// notifications; defaults keys. Clients of the daemon (the client library, orvexctl) use the same
// header, so a name is written once.
#pragma once

namespace orvex {

// The daemon on the session bus.
inline constexpr const char* kOrvexBusName = "com.zelmor.orvexd";
inline constexpr const char* kOrvexObjectPath = "/com/zelmor/orvexd";
inline constexpr const char* kOrvexEndpointPath = "/com/zelmor/orvexd/Endpoint";
inline constexpr const char* kOrvexFlusherPath = "/com/zelmor/orvexd/Flusher";
inline constexpr const char* kOrvexDaemonInterface = "com.zelmor.orvexd.Daemon";
inline constexpr const char* kOrvexDiagnosticsInterface = "com.zelmor.orvexd.Diagnostics";
inline constexpr const char* kOrvexEndpointInterface = "com.zelmor.orvexd.Endpoint";
inline constexpr const char* kOrvexFlusherInterface = "com.zelmor.orvexd.Flusher";
// The broadcast signal of the Daemon interface that carries system-wide notify names.
inline constexpr const char* kOrvexSystemNotifySignal = "SystemNotify";

// D-Bus errors that end a call.
inline constexpr const char* kOrvexErrorConnectionInvalidated =
    "com.zelmor.orvexd.Error.ConnectionInvalidated";
inline constexpr const char* kOrvexErrorInvalidArgument = "com.zelmor.orvexd.Error.InvalidArgument";
inline constexpr const char* kOrvexErrorNotSupported = "com.zelmor.orvexd.Error.NotSupported";
inline constexpr const char* kOrvexErrorInternal = "com.zelmor.orvexd.Error.Internal";
inline constexpr const char* kOrvexErrorAccessDenied = "com.zelmor.orvexd.Error.AccessDenied";
inline constexpr const char* kOrvexErrorLimitsExceeded = "com.zelmor.orvexd.Error.LimitsExceeded";

// The error domain of the daemon's own errors in error dictionaries.
inline constexpr const char* kORVErrorDomain = "ORVErrorDomain";

// The log subsystem every category is under.
inline constexpr const char* kOrvexLogSubsystem = "com.zelmor.orvexd";

// System notify names (the SystemNotify signal) telling whether the bag enables the news client
// ("news/1.0"): posted when that changes with a newly fetched bag.
inline constexpr const char* kORVNotifyEnabled = "com.zelmor.orvexd.news.enabled";
inline constexpr const char* kORVNotifyDisabled = "com.zelmor.orvexd.news.disabled";

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
// Bounds on client input (InputLimits).
inline constexpr const char* kORVMaxIdentifierLengthKey = "ORVMaxIdentifierLength";
inline constexpr const char* kORVMaxUserAgentLengthKey = "ORVMaxUserAgentLength";
inline constexpr const char* kORVMaxQueryLengthKey = "ORVMaxQueryLength";
inline constexpr const char* kORVMaxQueryItemsKey = "ORVMaxQueryItems";
inline constexpr const char* kORVMaxRecordBytesKey = "ORVMaxRecordBytes";

// Device overrides of what the system says, for integrators and testing: the device country
// (replaces the locale's region), the store front, the keyboard input mode and the screen scale
// (used when a client gives none), and the managed-account mode.
inline constexpr const char* kORVCountryCodeKey = "ORVCountryCode";
inline constexpr const char* kORVStorefrontKey = "ORVStorefront";
inline constexpr const char* kORVKeyboardInputModeKey = "ORVKeyboardInputMode";
inline constexpr const char* kORVScreenScaleKey = "ORVScreenScale";
inline constexpr const char* kORVManagedAccountKey = "ORVManagedAccount";

}  // namespace orvex
