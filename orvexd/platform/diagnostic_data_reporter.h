// Process-wide diagnostic counters, read out over D-Bus by GetCounters on the interface
// com.zelmor.orvexd.Diagnostics.
//
// Counters live in memory only and start from nothing at every launch. Keys are free-form
// strings; the fixed ones are listed below, and per-client keys are built with
// createCounterKey().
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

inline constexpr std::string_view kORVCounterLaunch = "com.zelmor.orvexd.launch";
inline constexpr std::string_view kORVCounterSearch = "com.zelmor.orvexd.search";
inline constexpr std::string_view kORVCounterClientConnection =
    "com.zelmor.orvexd.clientconnection";
inline constexpr std::string_view kORVCounterUserGUID = "com.zelmor.orvexd.userguid";
inline constexpr std::string_view kORVCounterFeedbackNotSent = "com.zelmor.orvexd.feedbacknotsent";
inline constexpr std::string_view kORVCounterBagFetches = "com.zelmor.orvexd.bag.fetches";
inline constexpr std::string_view kORVCounterBagFetchesFailed =
    "com.zelmor.orvexd.bag.fetchesfailed";
inline constexpr std::string_view kORVCounterBagExpired = "com.zelmor.orvexd.bag.expired";
inline constexpr std::string_view kORVCounterSessionsRoamer = "com.zelmor.orvexd.sessions.roamer";
inline constexpr std::string_view kORVCounterFileSizeExceeded =
    "com.zelmor.orvexd.filesizeexceeded";
inline constexpr std::string_view kORVCounterFileTooLarge = "com.zelmor.orvexd.filetoolarge";
inline constexpr std::string_view kORVCounterFileTooOld = "com.zelmor.orvexd.filetooold";
// Feedback records a client sent that were refused: over the size bound, or not a record.
inline constexpr std::string_view kORVCounterRecordsRefused = "com.zelmor.orvexd.records.refused";
inline constexpr std::string_view kORVCounterDPSubmit = "com.zelmor.orvexd.dp.submit";
inline constexpr std::string_view kORVCounterDPRecord = "com.zelmor.orvexd.dp.record";
inline constexpr std::string_view kORVCounterDPNormalizedLinkWhitelistedBlacklisted =
    "com.zelmor.orvexd.dp.normalizedlink.whitelisted.blacklisted";
inline constexpr std::string_view kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted =
    "com.zelmor.orvexd.dp.normalizedlink.notwhitelisted.blacklisted";

// Suffixes of the per-client keys, "com.zelmor.orvexd.<client>.<suffix>".
inline constexpr std::string_view kORVCounterSuffixXCPInvalidation = "xcpinvalidation";
inline constexpr std::string_view kORVCounterSuffixTopHitEngagements = "tophit.engagements";
inline constexpr std::string_view kORVCounterSuffixOrvexEngagements = "orvex.engagements";
inline constexpr std::string_view kORVCounterSuffixSessions = "sessions";
inline constexpr std::string_view kORVCounterSuffixDailyActiveUsers = "dailyactiveusers";
inline constexpr std::string_view kORVCounterSuffixKeystrokes = "keystrokes";
inline constexpr std::string_view kORVCounterSuffixOnDeviceCacheHits = "ondevicecachehits";
inline constexpr std::string_view kORVCounterSuffixNoConnection = "noconnection";
// Ends with a dot: the server's status code is appended to it to make the suffix.
inline constexpr std::string_view kORVCounterSuffixFedAPICallServerStatus =
    "fedapicall.serverstatus.";

class OrvexDiagnosticDataReporter {
 public:
  OrvexDiagnosticDataReporter() = delete;

  // Sets the counter to `value`, creating it if needed.
  static void setValueForScalarKey(int64_t value, std::string_view key);
  // Adds `value` (which may be negative) to the counter, which starts from 0 if absent. The sum
  // saturates at the limits of int64_t instead of wrapping.
  static void addValueForScalarKey(int64_t value, std::string_view key);
  // Removes the counter: it no longer appears in snapshot() until it is set or added to again.
  static void clearScalarKey(std::string_view key);
  // Every counter present, by key.
  static std::map<std::string, int64_t> snapshot();
  static void resetAllForTesting();
};

// The short name of a client, from its identifier or user agent: the first of "roamer",
// "glance", "voxa", "lookup", "messages", "news" and "orvexd" that the lower-cased text contains.
std::optional<std::string> extractClientNameFromString(std::string_view text);

// "com.zelmor.orvexd.<clientName>.<suffix>", or no key when there is no client name.
std::optional<std::string> createCounterKey(std::optional<std::string_view> clientName,
                                            std::string_view suffix);

// The name of a counter group identifier: 0 is "crowdsourcing", 1 is "Feedbacks", any other
// value has no name and gives "".
std::string convertIdentifierToString(int64_t identifier);

}  // namespace orvex
