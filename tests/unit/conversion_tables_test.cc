#include "orvexd/model/conversion_tables.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace orvex {
namespace {

// The client a user agent names decides the keys of its counters: Roamer before Glance, compared
// without case.
TEST(ConversionTablesTest, ClientFromUserAgent) {
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
