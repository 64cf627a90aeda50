#include "orvexd/base/json_limits.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(JsonLimits, DepthCountsBracketsOutsideStringsAndRefusesBeforeParsing) {
  EXPECT_EQ(jsonNestingDepth(R"({"a": [1, {"b": []}]})", 100), 4u);
  // Brackets in strings, escaped quotes included, do not count.
  EXPECT_EQ(jsonNestingDepth(R"(["[[[{", "\"[[", {"k\\": "]]]"}])", 100), 2u);
  // The scan stops once past the limit, however long the text.
  EXPECT_EQ(jsonNestingDepth(std::string(1 << 20, '['), 3), 4u);

  const JsonLimits limits{64, 3};
  EXPECT_EQ(jsonLimitProblem("[[[]]]", limits), std::nullopt);
  EXPECT_EQ(jsonLimitProblem("[[[[]]]]", limits), "nests more than 3 levels deep");
  EXPECT_EQ(jsonLimitProblem(std::string(65, ' '), limits), "is 65 bytes, more than 64");

  std::string problem;
  EXPECT_TRUE(parseJsonWithinLimits("[[[[1]]]]", limits, &problem).is_discarded());
  EXPECT_EQ(problem, "nests more than 3 levels deep");
  EXPECT_TRUE(parseJsonWithinLimits<nlohmann::ordered_json>("{", limits, &problem).is_discarded());
  EXPECT_EQ(problem, "is not valid JSON");
  EXPECT_EQ(parseJsonWithinLimits(R"({"a": [1]})", limits)["a"][0], 1);
}

}  // namespace
}  // namespace orvex
