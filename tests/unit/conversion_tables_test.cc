#include "orvexd/model/conversion_tables.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace orvex {
namespace {

// Names are read case-sensitively, with their aliases; unknown names and values take the
// table's fallback, whose spelling (misspelt in some tables) goes on the wire as it is.
TEST(ConversionTablesTest, ReadAndWriteEachTableWithItsFallback) {
  using Reads = std::vector<std::pair<std::string_view, int>>;
  for (const auto& [text, value] : Reads{{"tld", 0},
                                         {"Domain", 3},
                                         {"MEDIATYPE", 1},
                                         {"mt", 1},
                                         {"MT", 3},
                                         {"topic", 2},
                                         {"mediatype ", 3}}) {
    EXPECT_EQ(featureTypeFromString(text), value) << text;
  }
  EXPECT_EQ(stringFromFeatureType(1), "mediaType");
  EXPECT_EQ(stringFromFeatureType(-1), "unkonwn");
  EXPECT_EQ(clientTypeFromString("glance"), 1);
  EXPECT_EQ(clientTypeFromString("Roamer"), 2);
  EXPECT_EQ(stringFromClientType(7), "unknown");
  EXPECT_EQ(funcTypeFromString("engrate"), 1);
  EXPECT_EQ(funcTypeFromString("eng/render"), 1);
  EXPECT_EQ(stringFromFunctionType(1), "eng/render");
  EXPECT_EQ(resultPlacementFromString("Top"), 0);
  EXPECT_EQ(resultPlacementFromString("bottom"), 2);
  EXPECT_EQ(stringFromResultPlacement(3), "unkonw");

  for (const auto& [agent, client] :
       std::vector<std::pair<std::optional<std::string_view>, std::string_view>>{
           {std::nullopt, "unknown"},
           {"Roamer/4.2 (handheld)", "roamer"},
           {"GLANCE/1", "glance"},
           {"Glance/1 Roamer", "roamer"},
           {"Gl\xC3\xA4nce", "unknown"}}) {
    EXPECT_EQ(getClientFromUserAgent(agent), client) << agent.value_or("(none)");
  }
}

}  // namespace
}  // namespace orvex
