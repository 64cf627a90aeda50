#include "orvexd/query/client_state_manager.h"

#include <gtest/gtest.h>

#include "orvexd/base/orvex_names.h"
#include "orvexd/query/client_state.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using std::chrono::hours;

TEST(ClientStateManager, DropsAStateNothingHoldsADayAfterItsLastUseUnlessItIsPersisted) {
  testing::TestAssembly test;
  test.assembly->sharedSession = true;
  ASSERT_TRUE(test.assembly->userDefaults->setObject(kORVPersistSessionsKey, true));
  ASSERT_TRUE(test.assembly->userDefaults->setObject(kORVNoQueryCacheKey, true));
  auto manager = std::make_shared<OrvexClientStateManager>(*test.assembly);
  manager->start();
  const auto advance = [&](hours by) {
    test.advance(by);
    test.settle();
  };

  auto connected = manager->stateForClientIdentifier("connected");  // as a connection holds it
  std::weak_ptr<ClientState> left = manager->stateForClientIdentifier("left");
  manager->stateForClientIdentifier("persisted")->setUserAgent("Glance/1");
  EXPECT_EQ(manager->existingStateForClientIdentifier("made-up"), nullptr);
  advance(hours(23));
  EXPECT_FALSE(left.expired());
  advance(hours(2));
  EXPECT_TRUE(left.expired());
  EXPECT_EQ(manager->existingStateForClientIdentifier("left"), nullptr);

  // The connection leaves after two days: the day counts from then.
  advance(hours(23));
  std::weak_ptr<ClientState> gone = connected;
  connected.reset();
  advance(hours(23));
  EXPECT_FALSE(gone.expired());
  advance(hours(2));
  EXPECT_TRUE(gone.expired());
  const std::vector<ClientSessionEntry> persisted{
      {{"identifier", "persisted"}, {"agent", "Glance/1"}}};
  EXPECT_EQ(manager->sessions(), persisted);

  // After a restart the persisted state is made again, and stays.
  manager->saveState();
  test.settle();
  auto restarted = std::make_shared<OrvexClientStateManager>(*test.assembly);
  restarted->start();
  advance(hours(25));
  EXPECT_EQ(restarted->sessions(), persisted);
}

}  // namespace
}  // namespace orvex
