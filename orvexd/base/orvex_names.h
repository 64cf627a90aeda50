// Every name the daemon shares with another process or between its components: its bus name,
// object paths, interfaces and errors; the log subsystem; its own name and user agents;
// system-wide and in-process notifications; defaults keys; diagnostic counter keys. Clients of
// the daemon (the client library, orvexctl) use the same header, so a name is written once.
#pragma once

#include <array>
#include <string_view>

namespace orvex {

// The daemon on the session bus.
inline constexpr char kOrvexBusName[] = "com.zelmor.orvexd";
inline constexpr char kOrvexObjectPath[] = "/com/zelmor/orvexd";
inline constexpr char kOrvexEndpointPath[] = "/com/zelmor/orvexd/Endpoint";
inline constexpr char kOrvexFlusherPath[] = "/com/zelmor/orvexd/Flusher";
inline constexpr char kOrvexSubscriptionsPath[] = "/com/zelmor/orvexd/Subscriptions";
inline constexpr char kOrvexDaemonInterface[] = "com.zelmor.orvexd.Daemon";
inline constexpr char kOrvexDiagnosticsInterface[] = "com.zelmor.orvexd.Diagnostics";
inline constexpr char kOrvexEndpointInterface[] = "com.zelmor.orvexd.Endpoint";
inline constexpr char kOrvexFlusherInterface[] = "com.zelmor.orvexd.Flusher";
inline constexpr char kOrvexSubscriptionsInterface[] = "com.zelmor.orvexd.Subscriptions";
// The broadcast signal of the Daemon interface that carries system-wide notify names.
inline constexpr char kOrvexSystemNotifySignal[] = "SystemNotify";

// D-Bus errors that end a call.
inline constexpr char kOrvexErrorConnectionInvalidated[] =
    "com.zelmor.orvexd.Error.ConnectionInvalidated";
inline constexpr char kOrvexErrorInvalidArgument[] = "com.zelmor.orvexd.Error.InvalidArgument";
inline constexpr char kOrvexErrorNotSupported[] = "com.zelmor.orvexd.Error.NotSupported";
inline constexpr char kOrvexErrorInternal[] = "com.zelmor.orvexd.Error.Internal";
inline constexpr char kOrvexErrorAccessDenied[] = "com.zelmor.orvexd.Error.AccessDenied";
inline constexpr char kOrvexErrorLimitsExceeded[] = "com.zelmor.orvexd.Error.LimitsExceeded";

// The error domain of the daemon's own errors in error dictionaries.
inline constexpr char kORVErrorDomain[] = "ORVErrorDomain";
// The domain of errors that carry an errno value (0 when there is none).
inline constexpr char kPOSIXErrorDomain[] = "POSIXErrorDomain";

// The log subsystem every category is under.
inline constexpr char kOrvexLogSubsystem[] = "com.zelmor.orvexd";

// The daemon's own name and version, which is also its user agent.
inline constexpr char kORVOrvexdNameVersion[] = "orvexd/1.0";
// The client identifier the daemon uses for its own requests.
inline constexpr char kORVOrvexdIdentifier[] = "orvexd";
// The user agent of the news client, whose view of the bag the news notify names report.
inline constexpr char kORVNewsUserAgent[] = "news/1.0";
// The agent the daemon's resource downloads present themselves as.
inline constexpr char kORVDownloadAgent[] = "Glance/1";

// The helper that computes the locale and reads application metainfo for the daemon, found next
// to the daemon's executable, or at the path the environment variable names (tests, packaging).
inline constexpr char kORVProbeExecutableName[] = "orvexd-probe";
inline constexpr char kORVProbePathVariable[] = "ORVEXD_PROBE";

// System notify names (the SystemNotify signal) telling whether the bag enables the news client
// ("news/1.0"): posted when that changes with a newly fetched bag.
inline constexpr char kORVNotifyEnabled[] = "com.zelmor.orvexd.news.enabled";
inline constexpr char kORVNotifyDisabled[] = "com.zelmor.orvexd.news.disabled";

// In-process notifications (NotificationCenter).
inline constexpr char kORVStartupNotification[] = "ORVStartup";
inline constexpr char kORVBagChangeNotification[] = "ORVBagChangeNotification";
inline constexpr char kORVBagRefreshRequiredNotification[] = "ORVBagRefreshRequired";
inline constexpr char kORVUserGUIDChangeNotification[] = "ORVUserGUIDChangeNotification";
inline constexpr char kORVFileDownloadCompletedNotification[] =
    "ORVFileDownloadCompletedNotification";
inline constexpr char kORVFileDeletedNotification[] = "ORVFileDeletedNotification";
// Changes of the device context, posted by the request factory where it notices them: the
// device country (the locale's region or the ORVCountryCode override), the system time zone,
// the system locale, and the managed-account mode (ORVManagedAccount).
inline constexpr char kORVCountryCodeChangeNotification[] = "ORVCountryCodeChangeNotification";
inline constexpr char kORVTimeZoneChangeNotification[] = "ORVTimeZoneChangeNotification";
inline constexpr char kORVLocaleChangeNotification[] = "ORVLocaleChangeNotification";
inline constexpr char kORVDeviceManagementChangeNotification[] =
    "ORVDeviceManagementChangeNotification";
// The subscription registry's changes: the providers' published entries, and the media store's
// account status.
inline constexpr char kORVSubscriptionRegistryChangeNotification[] =
    "ORVSubscriptionRegistryChange";
inline constexpr char kORVMediaStoreSubscriptionStatusChangeNotification[] =
    "ORVMediaStoreSubscriptionStatusChange";

// The image fetcher's work queues: the valid image hosts, and its fetches and loads.
inline constexpr char kORVImageHostsQueueName[] = "com.zelmor.orvexd.imageHostsQueue";
inline constexpr char kORVImageFetchQueueName[] = "com.zelmor.orvexd.imageFetchQueue";

// Background activities (ActivityScheduler), which Diagnostics.RunActivity also runs by name.
inline constexpr char kORVFlusherActivityIdentifier[] = "com.zelmor.orvexd.flusher.background";
inline constexpr char kORVDeepLinkIngestActivityIdentifier[] = "com.zelmor.Orvex.DeepLinkIngest";

// The bag's resource keys, each a URL string at the top level of the bag, in the order the
// download manager processes them. The two lookup-hint resources are fetched only while lookup is
// enabled.
inline constexpr char kORVAutofillTLDWhitelist[] = "autofill_tld_whitelist";
inline constexpr char kORVInstalledAppWhitelist[] = "installed_app_whitelist";
inline constexpr char kORVQIFeatures[] = "qi_features";
inline constexpr char kORVWebsiteCategoryLabels[] = "website_category_labels";
inline constexpr char kORVLookupHintsWeekly[] = "lookup_hints_weekly";
inline constexpr char kORVLookupHintsMonthly[] = "lookup_hints_monthly";
inline constexpr char kORVGlanceModels[] = "glance_models";
inline constexpr char kORVCorrectionDict[] = "correction_dict";
inline constexpr char kORVCrowdsourcingBlacklist[] = "crowdsourcing_blacklist";
inline constexpr char kORVCrowdsourcingWhitelist[] = "crowdsourcing_whitelist";
inline constexpr std::array<std::string_view, 10> kORVResourceKeys = {
    kORVAutofillTLDWhitelist,  kORVInstalledAppWhitelist, kORVQIFeatures,
    kORVWebsiteCategoryLabels, kORVLookupHintsWeekly,     kORVLookupHintsMonthly,
    kORVGlanceModels,          kORVCorrectionDict,        kORVCrowdsourcingBlacklist,
    kORVCrowdsourcingWhitelist};

// Keys of the defaults store ($XDG_CONFIG_HOME/com.zelmor.orvexd/defaults.plist).
inline constexpr char kORVSharedSessionKey[] = "ORVSharedSession";
inline constexpr char kORVSessionSizeLimitKey[] = "ORVSessionSizeLimit";
inline constexpr char kORVSessionMaxAgeKey[] = "ORVSessionMaxAge";
inline constexpr char kORVFeedbackUploadTimeoutKey[] = "ORVFeedbackUploadTimeout";
inline constexpr char kORVNoParallaxKey[] = "ORVNoParallax";
inline constexpr char kORVPersistSessionsKey[] = "ORVPersistSessions";
inline constexpr char kORVNoQueryCacheKey[] = "ORVNoQueryCache";
inline constexpr char kORVBagURLKey[] = "ORVBagURL";
inline constexpr char kORVDebugParametersKey[] = "ORVDebugParameters";
inline constexpr char kTraceEnabledKey[] = "TraceEnabled";
// The file URL of the flight answers' data (a JSON array of flights).
inline constexpr char kORVFlightDebugDataLocationKey[] = "ORVFlightDebugDataLocation";
// Seconds a bag fetch may take in all before it is abandoned (default: the bag session's
// request time-out).
inline constexpr char kORVBagRequestTimeoutKey[] = "ORVBagRequestTimeout";
// Bounds on client input (InputLimits).
inline constexpr char kORVMaxIdentifierLengthKey[] = "ORVMaxIdentifierLength";
inline constexpr char kORVMaxUserAgentLengthKey[] = "ORVMaxUserAgentLength";
inline constexpr char kORVMaxQueryLengthKey[] = "ORVMaxQueryLength";
inline constexpr char kORVMaxQueryItemsKey[] = "ORVMaxQueryItems";
inline constexpr char kORVMaxRecordBytesKey[] = "ORVMaxRecordBytes";
inline constexpr char kORVMaxImagesPerLoadKey[] = "ORVMaxImagesPerLoad";

// Device overrides of what the system says, for integrators and testing: the device country
// (replaces the locale's region), the store front, the keyboard input mode and the screen scale
// (used when a client gives none), and the managed-account mode.
inline constexpr char kORVCountryCodeKey[] = "ORVCountryCode";
inline constexpr char kORVStorefrontKey[] = "ORVStorefront";
inline constexpr char kORVKeyboardInputModeKey[] = "ORVKeyboardInputMode";
inline constexpr char kORVScreenScaleKey[] = "ORVScreenScale";
inline constexpr char kORVManagedAccountKey[] = "ORVManagedAccount";
// What the download manager has fetched: identifier → {"url", "redirect_url"}.
inline constexpr char kORVDownloadResourcesKey[] = "download_resources";
// The installed-app signature last computed (base64), absent when there is none.
inline constexpr char kORVAppWhitelistSignatureKey[] = "ORVAppWhitelistSignature";
// The application id allowed to set the media-store account status (Subscriptions interface).
inline constexpr char kORVMediaStoreIdentifierKey[] = "ORVMediaStoreIdentifier";
// The subscription registry: what providers published (application id → {"type", "domain",
// "published", "expires"}, times in Unix seconds), and the media store's account status.
inline constexpr char kORVPublishedSubscriptionsKey[] = "ORVPublishedSubscriptions";
inline constexpr char kORVMediaStoreAccountStatusKey[] = "ORVMediaStoreAccountStatus";
// The usage-knowledge store the deep-link ingestion reads (a SQLite file; default
// $XDG_DATA_HOME/com.zelmor.knowledge/knowledge.db).
inline constexpr char kORVKnowledgeStorePathKey[] = "ORVKnowledgeStorePath";

// Keys of the diagnostic counters (GetCounters on com.zelmor.orvexd.Diagnostics).
inline constexpr char kORVCounterLaunch[] = "com.zelmor.orvexd.launch";
inline constexpr char kORVCounterSearch[] = "com.zelmor.orvexd.search";
inline constexpr char kORVCounterClientConnection[] = "com.zelmor.orvexd.clientconnection";
inline constexpr char kORVCounterUserGUID[] = "com.zelmor.orvexd.userguid";
inline constexpr char kORVCounterFeedbackSent[] = "com.zelmor.orvexd.feedbacksent";
inline constexpr char kORVCounterFeedbackNotSent[] = "com.zelmor.orvexd.feedbacknotsent";
inline constexpr char kORVCounterFBRequestTimedOut[] = "com.zelmor.orvexd.fbrequesttimedout";
inline constexpr char kORVCounterBagFetches[] = "com.zelmor.orvexd.bag.fetches";
inline constexpr char kORVCounterBagFetchesFailed[] = "com.zelmor.orvexd.bag.fetchesfailed";
inline constexpr char kORVCounterBagExpired[] = "com.zelmor.orvexd.bag.expired";
inline constexpr char kORVCounterResourceFilesFetched[] = "com.zelmor.orvexd.resourcefilesfetched";
// Resource downloads refused for exceeding the download manager's size cap.
inline constexpr char kORVCounterResourceFileTooLarge[] = "com.zelmor.orvexd.resourcefiletoolarge";
inline constexpr char kORVCounterSessionsRoamer[] = "com.zelmor.orvexd.sessions.roamer";
inline constexpr char kORVCounterFileSizeExceeded[] = "com.zelmor.orvexd.filesizeexceeded";
inline constexpr char kORVCounterFileTooLarge[] = "com.zelmor.orvexd.filetoolarge";
inline constexpr char kORVCounterFileTooOld[] = "com.zelmor.orvexd.filetooold";
// Attempts to write a session file that failed (full disk, missing or read-only directory); the
// records stay in memory and the write is tried again with the next record.
inline constexpr char kORVCounterSessionWriteFailures[] = "com.zelmor.orvexd.session.writefailures";
// Records that never reached a session file: larger than a whole file, or given up on after
// writes kept failing.
inline constexpr char kORVCounterRecordsDropped[] = "com.zelmor.orvexd.records.dropped";
// Feedback records a client sent that were refused: over the size bound, or not a record.
inline constexpr char kORVCounterRecordsRefused[] = "com.zelmor.orvexd.records.refused";
// Image fetches not started because as many were running as the fetcher allows at once, and
// image hosts not remembered because the set of valid hosts was full.
inline constexpr char kORVCounterImageFetchesRefused[] = "com.zelmor.orvexd.images.fetchesrefused";
inline constexpr char kORVCounterImageHostsRefused[] = "com.zelmor.orvexd.images.hostsrefused";
// Subscription publications refused because the registry held as many providers as it keeps,
// and stored entries dropped at start because they no longer read.
inline constexpr char kORVCounterSubscriptionsRefused[] = "com.zelmor.orvexd.subscriptions.refused";
inline constexpr char kORVCounterSubscriptionsDropped[] = "com.zelmor.orvexd.subscriptions.dropped";
// Deep-link ingestion: links read, recorded per application and in all, the outcome of each
// application's recording and of each run, and the links the filter kept or refused.
inline constexpr char kORVCounterDPSubmit[] = "com.zelmor.orvexd.dp.submit";
inline constexpr char kORVCounterDPEligibleLinks[] = "com.zelmor.orvexd.dp.eligiblelinks";
inline constexpr char kORVCounterDPSentLinksApp[] = "com.zelmor.orvexd.dp.sentlinks.app";
inline constexpr char kORVCounterDPSentLinks[] = "com.zelmor.orvexd.dp.sentlinks";
inline constexpr char kORVCounterDPRecordAppSuccess[] = "com.zelmor.orvexd.dp.record.app.success";
inline constexpr char kORVCounterDPRecordAppFailure[] = "com.zelmor.orvexd.dp.record.app.failure";
inline constexpr char kORVCounterDPRecord[] = "com.zelmor.orvexd.dp.record";
inline constexpr char kORVCounterDPNormalizedLinkWhitelistedBlacklisted[] =
    "com.zelmor.orvexd.dp.normalizedlink.whitelisted.blacklisted";
inline constexpr char kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted[] =
    "com.zelmor.orvexd.dp.normalizedlink.notwhitelisted.blacklisted";
inline constexpr char kORVCounterDPNormalizedLink[] = "com.zelmor.orvexd.dp.normalizedlink";
inline constexpr char kORVCounterDPNormalizedLinkBundleIds[] =
    "com.zelmor.orvexd.dp.normalizedlink.bundleids";
inline constexpr char kORVCounterDPNormalizedLinkUrls[] =
    "com.zelmor.orvexd.dp.normalizedlink.urls";
// The differential-privacy recorder: strings not recorded because the day's privacy budget was
// spent, reports removed by the retention bounds, and report files it could not read.
inline constexpr char kORVCounterDPOverBudget[] = "com.zelmor.orvexd.dp.overbudget";
inline constexpr char kORVCounterDPRetired[] = "com.zelmor.orvexd.dp.retired";
inline constexpr char kORVCounterDPUnreadable[] = "com.zelmor.orvexd.dp.unreadable";

// Suffixes of the per-client counter keys, "com.zelmor.orvexd.<client>.<suffix>".
inline constexpr char kORVCounterSuffixXCPInvalidation[] = "xcpinvalidation";
inline constexpr char kORVCounterSuffixTopHitEngagements[] = "tophit.engagements";
inline constexpr char kORVCounterSuffixOrvexEngagements[] = "orvex.engagements";
inline constexpr char kORVCounterSuffixSessions[] = "sessions";
inline constexpr char kORVCounterSuffixDailyActiveUsers[] = "dailyactiveusers";
inline constexpr char kORVCounterSuffixKeystrokes[] = "keystrokes";
inline constexpr char kORVCounterSuffixOnDeviceCacheHits[] = "ondevicecachehits";
inline constexpr char kORVCounterSuffixNoConnection[] = "noconnection";
// Ends with a dot: the server's status code is appended to it to make the suffix.
inline constexpr char kORVCounterSuffixFedAPICallServerStatus[] = "fedapicall.serverstatus.";

}  // namespace orvex
