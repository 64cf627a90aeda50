// Constants shared by the daemon and its clients.
#pragma once

namespace orvex {

// Domain of the errors the daemon itself reports to clients.
inline constexpr const char* kORVErrorDomain = "ORVErrorDomain";
// The daemon's own name and version, which is also its user agent.
inline constexpr const char* kORVOrvexdNameVersion = "orvexd/1.0";
// The client identifier the daemon uses for its own requests.
inline constexpr const char* kORVOrvexdIdentifier = "orvexd";
// System notify names (the D-Bus signal SystemNotify) telling whether the bag enables the news
// client ("news/1.0"): posted when that changes with a newly fetched bag.
inline constexpr const char* kORVNotifyEnabled = "com.zelmor.orvexd.news.enabled";
inline constexpr const char* kORVNotifyDisabled = "com.zelmor.orvexd.news.disabled";
// The user agent of the news client, whose view of the bag those names report.
inline constexpr const char* kORVNewsUserAgent = "news/1.0";
// The agent the daemon's resource downloads present themselves as.
inline constexpr const char* kORVDownloadAgent = "Glance/1";

}  // namespace orvex
