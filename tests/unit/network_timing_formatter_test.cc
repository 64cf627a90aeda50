#include "orvexd/model/network_timing_formatter.h"

#include <gtest/gtest.h>

#include "orvexd/platform/http_timing.h"

namespace orvex {
namespace {

using nlohmann::json;

TEST(NetworkTimingFormatter, TimesStatisticsAndPeerAddresses) {
  const auto timing = [](std::initializer_list<std::pair<const std::string, PlistValue>> entries) {
    PlistDictionary out;
    for (const auto& [name, value] : entries) out.emplace("_orvexTiming_" + name, value);
    return out;
  };
  // Statistics keep their non-zero whole numbers; zero times are dropped, the earliest is 0.
  const PlistDictionary counts = {{"_orvexTiming_StatsConnects", 3},
                                  {"_orvexTiming_StatsZero", 0},
                                  {"_orvexTiming_StatsHalf", 0.5},
                                  {"_orvexTiming_StatsText", "x"},
                                  {"short", 1}};
  EXPECT_EQ(
      formatNetworkTimingData(timing({{"connectionStartTimeCounts", counts},
                                      {"tcpFastOpenStats", PlistDictionary{{"a", "b"}, {"n", 0}}},
                                      {"responseEnd", 10.0016},
                                      {"fetchStart", 10.0},
                                      {"connectEnd", 0},
                                      {"requestStart", 10.0004}}))
          .toJson(),
      json::parse(R"([["fetchStart",0],["requestStart",0],["responseEnd",2],
          ["connectionStartTimeCounts",{"Connects":3}],["tcpFastOpenStats",{"a":"b","n":0}]])"));
  EXPECT_TRUE(formatNetworkTimingData(
                  timing({{"connectionReused", true}, {"other", 5}, {"fetchStart", "soon"}}))
                  .isNull());

  // What the HTTP layer makes of a transfer: the session test; its upload: the records' test.
  // Addresses in the BSD layout of sockaddr_in and sockaddr_in6, which the layer encodes.
  const auto ipv4 = *encodeBsdSocketAddress("192.0.2.7", 443);
  const auto ipv6 = *encodeBsdSocketAddress("2001:db8::1", 443);
  EXPECT_EQ(formatPeerAddress(ipv4), "192.0.2.7:443");
  EXPECT_EQ(formatPeerAddress(ipv6), "[2001:db8::1]:443");
  EXPECT_EQ(formatPeerAddress(std::span(ipv4).first(15)), "");
  EXPECT_EQ(formatPeerAddress(std::span(ipv6).first(20)), "");  // too short for the address
  auto other = ipv4;
  other[1] = 1;  // no family of its own
  EXPECT_EQ(formatPeerAddress(other), "");
}

}  // namespace
}  // namespace orvex
