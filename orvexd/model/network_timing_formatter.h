// The upload form of a network task's timing data: the "network_timing_data" array, and the
// peer address, of an end-of-network-search record.
//
// The HTTP layer (platform/http_timing.cc) describes each task in a dictionary whose entry
// names all begin with kTaskTimingPrefix. Each entry goes into one of three groups by its name
// without the prefix:
// 1. kTimingConnectionStartCounts and kTimingConnectionStopCounts: counters of connection
//    events, dictionaries whose sub-entry names carry the common prefix and the five-character
//    marker kTimingStatsMarker ("_orvexTiming_Stats<name>"). A statistics item keeps the
//    sub-entries that are numbers with a non-zero integer value, named <name>.
// 2. a name containing kTimingFastOpenMarker: TCP fast-open statistics, a dictionary copied
//    as it is into a statistics item.
// 3. a name containing "Start" or "End" whose value is a non-zero number: a point in time
//    (seconds) such as fetchStart, domainLookupStart/End, connectStart/End,
//    secureConnectionStart/End, requestStart/End and responseStart/End.
// Everything else is left out here; connectionReused, interfaceIdentifier and peerAddress are
// written as keys of their own by the record. libcurl reports no connection counters or
// fast-open statistics, so the daemon's own tasks only fill group 3; the other two groups come
// with timing data that clients report.
//
// The output lists the time points first, ordered by time, as [name, whole milliseconds after
// the earliest one], then the statistics items in name order as [name, dictionary].
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/property_list.h"
#include "orvexd/model/feedback_dictionary.h"

namespace orvex {

inline constexpr std::string_view kTimingConnectionStartCounts = "connectionStartTimeCounts";
inline constexpr std::string_view kTimingConnectionStopCounts = "connectionStopTimeCounts";
inline constexpr std::string_view kTimingStatsMarker = "Stats";
inline constexpr std::string_view kTimingFastOpenMarker = "tcpFastOpenStats";
inline constexpr std::string_view kTimingConnectionReused = "connectionReused";
inline constexpr std::string_view kTimingInterfaceIdentifier = "interfaceIdentifier";
inline constexpr std::string_view kTimingPeerAddress = "peerAddress";

// One item of the formatter: a named event, either a point in time or a set of statistics.
struct OrvexNetEventFeedback {
  std::string name;
};
struct OrvexNetEventTimingFeedback : OrvexNetEventFeedback {
  double value = 0;  // seconds
};
struct OrvexNetEventStatsFeedback : OrvexNetEventFeedback {
  FeedbackDictionary stats;
};

// The timing and statistics items of `timing`, sorted into their groups (see above). Time
// points come ordered by time, the earliest first; entries of the same time keep name order.
struct NetworkTimingEvents {
  std::vector<OrvexNetEventTimingFeedback> timings;
  std::vector<OrvexNetEventStatsFeedback> stats;
};
NetworkTimingEvents collectNetworkTimingEvents(const PlistDictionary& timing);

// The "network_timing_data" array, or null when no entry makes an item.
FeedbackValue formatNetworkTimingData(const PlistDictionary& timing);

// A socket address in the BSD layout as text: "192.0.2.1:443" for family 2 (the address at
// byte 4), "[2001:db8::1]:443" for family 30 (the address at byte 8); empty for fewer than 16
// bytes, too few bytes for the family's address, or any other family.
std::string formatPeerAddress(std::span<const uint8_t> address);

}  // namespace orvex
