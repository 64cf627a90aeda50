// The flight answers come from a local file, for front-ends to be developed and tested against
// before a flight back-end exists: a JSON array of flight dictionaries at the file URL the
// defaults key "ORVFlightDebugDataLocation" names (file:///tmp/flight_dummy_data.json when it is
// unset).
//
// Plain functions, callable from any thread; the file is read afresh for every query, so it can
// be edited while the daemon runs.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

class DefaultsStore;

// The largest flight data file read.
inline constexpr size_t kFlightDataMaxBytes = size_t{4} << 20;

// The parsed file, or none (logged) when it cannot be read or parsed.
std::optional<nlohmann::json> loadFlightDebugData(const DefaultsStore* defaults);

// The flights of `data` whose "carrierCode" and "flightNumber" are those of `flightQuery`
// ("CARRIER-NUMBER"); an empty array for a query of another form or data that is not an array.
nlohmann::json flightsMatchingQuery(const std::optional<nlohmann::json>& data,
                                    std::string_view flightQuery);
// The flights of `data` whose "flightId" is `flightId`.
nlohmann::json flightsWithIdentifier(const std::optional<nlohmann::json>& data,
                                     std::string_view flightId);

}  // namespace orvex
