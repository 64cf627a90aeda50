// Constants shared by the daemon and its clients.
#pragma once

namespace orvex {

// Domain of the errors the daemon itself reports to clients.
inline constexpr const char* kORVErrorDomain = "ORVErrorDomain";
// The daemon's own name and version, which is also its user agent.
inline constexpr const char* kORVOrvexdNameVersion = "orvexd/1.0";
// The client identifier the daemon uses for its own requests.
inline constexpr const char* kORVOrvexdIdentifier = "orvexd";
// The agent the daemon's resource downloads present themselves as.
inline constexpr const char* kORVDownloadAgent = "Glance/1";

}  // namespace orvex
