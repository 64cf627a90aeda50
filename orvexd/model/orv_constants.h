// Constants shared by the daemon and its clients.
#pragma once

namespace orvex {

// The daemon's own name and version, which is also its user agent.
inline constexpr const char* kORVOrvexdNameVersion = "orvexd/1.0";
// The client identifier the daemon uses for its own requests.
inline constexpr const char* kORVOrvexdIdentifier = "orvexd";
// The user agent of the news client, whose view of the bag the news notify names report.
inline constexpr const char* kORVNewsUserAgent = "news/1.0";
// The agent the daemon's resource downloads present themselves as.
inline constexpr const char* kORVDownloadAgent = "Glance/1";

}  // namespace orvex
