#include "orvexd/query/flight_debug_data.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/platform/defaults_store.h"

namespace orvex {

namespace {

const OrvexLog& searchLog() { return OrvexLogForCategory(kOrvexLogSearch); }

constexpr std::string_view kDefaultLocation = "file:///tmp/flight_dummy_data.json";
constexpr std::string_view kFileScheme = "file://";

// The file a "file://" URL names, or none for any other URL (a host other than localhost
// included).
std::optional<std::string> filePathOfUrl(std::string_view url) {
  if (url.substr(0, kFileScheme.size()) != kFileScheme) return std::nullopt;
  url.remove_prefix(kFileScheme.size());
  if (url.substr(0, 9) == "localhost") url.remove_prefix(9);
  if (url.empty() || url.front() != '/') return std::nullopt;
  return percentDecode(url.substr(0, url.find_first_of("?#")));
}

// The whole file, when it is a regular file of at most kFlightDataMaxBytes.
std::optional<std::string> readSmallFile(const std::string& path, std::string& why) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) {
    why = path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      why = path + ": " + std::strerror(errno);
      return std::nullopt;
    }
    if (got == 0) return text;
    if (text.size() + static_cast<size_t>(got) > kFlightDataMaxBytes) {
      why = path + " is larger than " + std::to_string(kFlightDataMaxBytes) + " bytes";
      return std::nullopt;
    }
    text.append(buffer, static_cast<size_t>(got));
  }
}

template <class Match>
nlohmann::json collectFlights(const std::optional<nlohmann::json>& data, Match matches) {
  auto flights = nlohmann::json::array();
  if (!data || !data->is_array()) return flights;
  for (const auto& entry : *data) {
    if (entry.is_object() && matches(entry)) flights.push_back(entry);
  }
  return flights;
}

bool stringEquals(const nlohmann::json& entry, const char* key, std::string_view expected) {
  const auto value = entry.find(key);
  return value != entry.end() && value->is_string() &&
         value->get_ref<const std::string&>() == expected;
}

}  // namespace

std::optional<nlohmann::json> loadFlightDebugData(const DefaultsStore* defaults) {
  std::string location(kDefaultLocation);
  if (defaults != nullptr) {
    if (auto configured = defaults->stringForKey(kORVFlightDebugDataLocationKey)) {
      location = *configured;
    }
  }
  std::string why;
  std::optional<std::string> text;
  if (auto path = filePathOfUrl(location)) {
    text = readSmallFile(*path, why);
  } else {
    why = location + " is not a file URL";
  }
  if (!text) {
    searchLog().error("Failed to load flight test data. Error: %@", why);
    return std::nullopt;
  }
  std::string problem;
  auto parsed = parseJsonWithinLimits(*text, {kFlightDataMaxBytes, kJsonMaxDepth}, &problem);
  if (parsed.is_discarded()) {
    searchLog().error("Failed to parse flight test data json. Error: %@", location + " " + problem);
    return std::nullopt;
  }
  return parsed;
}

nlohmann::json flightsMatchingQuery(const std::optional<nlohmann::json>& data,
                                    std::string_view flightQuery) {
  const auto dash = flightQuery.find('-');
  if (dash == std::string_view::npos || flightQuery.find('-', dash + 1) != std::string_view::npos) {
    return nlohmann::json::array();
  }
  const auto carrier = flightQuery.substr(0, dash);
  const auto number = flightQuery.substr(dash + 1);
  return collectFlights(data, [&](const nlohmann::json& entry) {
    return stringEquals(entry, "flightNumber", number) &&
           stringEquals(entry, "carrierCode", carrier);
  });
}

nlohmann::json flightsWithIdentifier(const std::optional<nlohmann::json>& data,
                                     std::string_view flightId) {
  return collectFlights(
      data, [&](const nlohmann::json& entry) { return stringEquals(entry, "flightId", flightId); });
}

}  // namespace orvex
