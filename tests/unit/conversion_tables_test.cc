#include "orvexd/model/conversion_tables.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace orvex {
namespace {

using Reads = std::vector<std::pair<std::string_view, int>>;
using Writes = std::vector<std::pair<int, std::string_view>>;

TEST(ConversionTablesTest, FeatureType) {
  const Reads reads = {{"domain", 0},    {"tld", 0},       {"Domain", 3}, {"mediatype", 1},
                       {"MediaType", 1}, {"MEDIATYPE", 1}, {"mt", 1},     {"MT", 3},
                       {"topic", 2},     {"Topic", 3},     {"", 3},       {"mediatype ", 3}};
  for (const auto& [text, value] : reads) EXPECT_EQ(featureTypeFromString(text), value) << text;
  const Writes writes = {{0, "domain"},  {1, "mediaType"}, {2, "topic"},
                         {3, "unkonwn"}, {4, "unkonwn"},   {-1, "unkonwn"}};
  for (const auto& [value, text] : writes) EXPECT_EQ(stringFromFeatureType(value), text) << value;
}

TEST(ConversionTablesTest, ClientType) {
  const Reads reads = {{"roamer", 0}, {"glance", 1}, {"Roamer", 2}, {"", 2}, {"news", 2}};
  for (const auto& [text, value] : reads) EXPECT_EQ(clientTypeFromString(text), value) << text;
  const Writes writes = {{0, "roamer"}, {1, "glance"}, {2, "unknown"}, {7, "unknown"}};
  for (const auto& [value, text] : writes) EXPECT_EQ(stringFromClientType(value), text) << value;
}

TEST(ConversionTablesTest, FunctionTypeReadsEngrateButWritesEngRender) {
  const Reads reads = {{"eng", 0}, {"engrate", 1}, {"eng/render", 1},
                       {"ENG", 2}, {"render", 2},  {"", 2}};
  for (const auto& [text, value] : reads) EXPECT_EQ(funcTypeFromString(text), value) << text;
  const Writes writes = {{0, "eng"}, {1, "eng/render"}, {2, "unknown"}, {-3, "unknown"}};
  for (const auto& [value, text] : writes) EXPECT_EQ(stringFromFunctionType(value), text) << value;
}

TEST(ConversionTablesTest, ResultPlacementUnknownIsZero) {
  const Reads reads = {{"top", 1}, {"bottom", 2}, {"Top", 0}, {"middle", 0}, {"", 0}};
  for (const auto& [text, value] : reads) EXPECT_EQ(resultPlacementFromString(text), value) << text;
  const Writes writes = {{0, "unkonw"}, {1, "top"}, {2, "bottom"}, {3, "unkonw"}};
  for (const auto& [value, text] : writes) {
    EXPECT_EQ(stringFromResultPlacement(value), text) << value;
  }
}

TEST(ConversionTablesTest, ClientFromUserAgent) {
  const std::vector<std::pair<std::optional<std::string_view>, std::string_view>> cases = {
      {std::nullopt, "unknown"},
      {"", "unknown"},
      {"Roamer/4.2 (handheld)", "roamer"},
      {"GLANCE/1", "glance"},
      {"Glance/1 Roamer", "roamer"},
      {"roamerglance", "roamer"},
      {"curl/8.0", "unknown"},
      {"Gl\xC3\xA4nce", "unknown"},
  };
  for (const auto& [agent, client] : cases) {
    EXPECT_EQ(getClientFromUserAgent(agent), client) << agent.value_or("(none)");
  }
}

}  // namespace
}  // namespace orvex
