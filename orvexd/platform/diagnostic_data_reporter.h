// Process-wide diagnostic counters, read out over D-Bus by GetCounters on the interface
// com.zelmor.orvexd.Diagnostics.
//
// Counters live in memory only and start from nothing at every launch. Keys are free-form
// strings; the fixed ones are listed with the daemon's other names (orvex_names.h), and per-client
// keys are built with createCounterKey().
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/orvex_names.h"

namespace orvex {

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
