#include "orvexd/query/critbit_tree.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvexd/query/critbit.h"

namespace orvex {
namespace {

std::vector<std::string> releasedValues;
void recordRelease(void* value) { releasedValues.emplace_back(static_cast<const char*>(value)); }

// Return codes and releases against std::map are fuzz/critbit_fuzz.cc's job; these are the
// corners it does not reach.
TEST(CritbitCore, FlagBitEmptyKeyCallbackResultsAndClear) {
  critbit_tree tree{};
  tree.value_release = recordRelease;
  releasedValues.clear();
  char one[] = "one", two[] = "two", three[] = "three";

  EXPECT_EQ(critbit_insert(&tree, "abc", one, 1), 2);
  EXPECT_EQ(critbit_insert(&tree, "abc", two, 2), 1);  // only the lowest bit of the flag counts
  EXPECT_TRUE(releasedValues.empty());
  EXPECT_EQ(critbit_insert(&tree, "abc", two, 3), 1);
  EXPECT_EQ(releasedValues, std::vector<std::string>{"one"});
  EXPECT_EQ(critbit_insert(&tree, "", three, 1), 2);  // the empty key holds only the NUL
  EXPECT_EQ(critbit_contains(&tree, "", nullptr), 1);

  const auto stopAtOnce = [](const char*, void*) { return 0; };
  const auto misbehave = [](const char*, void*) { return 7; };
  EXPECT_EQ(critbit_allprefixed(&tree, "", stopAtOnce, nullptr), 0);
  EXPECT_EQ(critbit_allprefixed(&tree, "", misbehave, nullptr), -1);
  EXPECT_EQ(critbit_allprefixed(&tree, "abc", misbehave, nullptr), -1);  // a lone external node

  EXPECT_EQ(critbit_delete(&tree, ""), 1);
  EXPECT_EQ(critbit_delete(&tree, "abc"), 1);  // the last key: the root is empty again
  EXPECT_EQ(tree.root.flag, 0u);
  critbit_insert(&tree, "x", one, 1);
  critbit_insert(&tree, "y", two, 1);
  releasedValues.clear();
  critbit_clear(&tree);
  EXPECT_EQ(tree.root.flag, 0u);
  EXPECT_EQ(tree.size, 0u);
  EXPECT_EQ(releasedValues, (std::vector<std::string>{"one", "two"}));
}

TEST(CritbitTree, ReleasesEachValueItGivesUp) {
  releasedValues.clear();
  char first[] = "first", second[] = "second";
  {
    CritbitTree tree(recordRelease);
    EXPECT_TRUE(tree.setObject(first, "weather"));
    EXPECT_TRUE(tree.setObject(first, "weather"));  // the very value: held once, not released
    EXPECT_TRUE(releasedValues.empty());
    EXPECT_TRUE(tree.setObject(second, "weather"));
    EXPECT_EQ(releasedValues, std::vector<std::string>{"first"});
    EXPECT_EQ(tree.count(), 1u);
    EXPECT_EQ(tree.objectForKey("weather"), second);

    EXPECT_FALSE(tree.setObject(first, std::string_view("a\0b", 3)));
    EXPECT_FALSE(tree.setObject(nullptr, "a"));
    EXPECT_FALSE(tree.containsKey(std::string_view("weather\0", 8)));
    EXPECT_EQ(tree.objectForKey("weath"), nullptr);

    const std::string longKey(1000, 'q');  // past the on-stack key buffer
    EXPECT_TRUE(tree.setObject(first, longKey));
    EXPECT_TRUE(tree.containsKey(longKey));
    EXPECT_FALSE(tree.containsKey(longKey.substr(1)));

    CritbitTree moved(std::move(tree));
    EXPECT_EQ(moved.count(), 2u);
    EXPECT_EQ(tree.count(), 0u);
    EXPECT_TRUE(moved.removeObjectForKey("weather"));
    EXPECT_FALSE(moved.removeObjectForKey("weather"));
    EXPECT_EQ(releasedValues, (std::vector<std::string>{"first", "second"}));
  }
  // The moved-from tree releases nothing twice; the moved-to one gives up the long key's value.
  EXPECT_EQ(releasedValues, (std::vector<std::string>{"first", "second", "first"}));
}

}  // namespace
}  // namespace orvex
