#include "orvexd/model/network_timing_formatter.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "orvexd/base/http_types.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

constexpr uint8_t kFamilyInet = 2;
constexpr uint8_t kFamilyInet6 = 30;
constexpr std::size_t kShortestAddress = 16;

std::string_view withoutPrefix(std::string_view name) {
  if (name.starts_with(kTaskTimingPrefix)) name.remove_prefix(kTaskTimingPrefix.size());
  return name;
}

// A property-list value as it goes into the upload JSON; bytes as base64, dates as ISO 8601.
FeedbackValue uploadValue(const PlistValue& value) {
  return value.visit([](const auto& stored) -> FeedbackValue {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, PlistData>) {
      return encodeBase64(stored);
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      return stored.iso8601();
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      FeedbackArray array;
      array.reserve(stored.size());
      for (const auto& element : stored) array.push_back(uploadValue(element));
      return array;
    } else if constexpr (std::is_same_v<T, PlistDictionary>) {
      FeedbackDictionary dictionary(stored.size());
      for (const auto& [name, child] : stored) dictionary.setAnyKey(name, uploadValue(child));
      return dictionary;
    } else {
      return stored;
    }
  });
}

// The counters of a connection-count entry: numbers with a non-zero integer part.
FeedbackDictionary connectionCounts(const PlistDictionary& counts) {
  const std::size_t cut = kTaskTimingPrefix.size() + kTimingStatsMarker.size();
  FeedbackDictionary kept;
  for (const auto& [name, value] : counts) {
    const auto number = value.asDouble();
    if (!number || saturatingInt64(*number) == 0 || name.size() <= cut) continue;
    kept.setAnyKey(std::string_view(name).substr(cut), uploadValue(value));
  }
  return kept;
}

}  // namespace

NetworkTimingEvents collectNetworkTimingEvents(const PlistDictionary& timing) {
  NetworkTimingEvents events;
  for (const auto& [entry, value] : timing) {
    const std::string_view name = withoutPrefix(entry);
    const PlistDictionary* dictionary = value.asDictionary();
    if (name == kTimingConnectionStartCounts || name == kTimingConnectionStopCounts) {
      if (dictionary != nullptr) {
        events.stats.push_back({{std::string(name)}, connectionCounts(*dictionary)});
      }
    } else if (name.find(kTimingFastOpenMarker) != std::string_view::npos) {
      if (dictionary != nullptr) {
        events.stats.push_back({{std::string(name)}, *uploadValue(value).asDictionary()});
      }
    } else if (name.find("Start") != std::string_view::npos ||
               name.find("End") != std::string_view::npos) {
      const auto seconds = value.asDouble();
      if (seconds && *seconds != 0 && std::isfinite(*seconds)) {
        events.timings.push_back({{std::string(name)}, *seconds});
      }
    }
  }
  std::stable_sort(events.timings.begin(), events.timings.end(),
                   [](const auto& a, const auto& b) { return a.value < b.value; });
  return events;
}

FeedbackValue formatNetworkTimingData(const PlistDictionary& timing) {
  NetworkTimingEvents events = collectNetworkTimingEvents(timing);
  if (events.timings.empty() && events.stats.empty()) return FeedbackValue();
  FeedbackArray items;
  items.reserve(events.timings.size() + events.stats.size());
  const double origin = events.timings.empty() ? 0 : events.timings.front().value;
  for (auto& item : events.timings) {
    const double milliseconds = std::round((item.value - origin) * 1000);
    items.push_back(FeedbackArray{std::move(item.name), saturatingInt64(milliseconds)});
  }
  for (auto& item : events.stats) {
    items.push_back(FeedbackArray{std::move(item.name), std::move(item.stats)});
  }
  return items;
}

std::string formatPeerAddress(std::span<const uint8_t> address) {
  if (address.size() < kShortestAddress) return {};
  const unsigned port = (unsigned{address[2]} << 8) | address[3];
  char text[46] = {};  // INET6_ADDRSTRLEN
  if (address[1] == kFamilyInet6 && address.size() >= 24) {
    in6_addr bytes{};
    std::memcpy(&bytes, address.data() + 8, sizeof bytes);
    if (inet_ntop(AF_INET6, &bytes, text, sizeof text) == nullptr) return {};
    return "[" + std::string(text) + "]:" + std::to_string(port);
  }
  if (address[1] == kFamilyInet) {
    in_addr bytes{};
    std::memcpy(&bytes, address.data() + 4, sizeof bytes);
    if (inet_ntop(AF_INET, &bytes, text, sizeof text) == nullptr) return {};
    return std::string(text) + ":" + std::to_string(port);
  }
  return {};
}

}  // namespace orvex
