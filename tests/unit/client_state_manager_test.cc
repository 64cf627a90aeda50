#include "orvexd/query/client_state_manager.h"

#include <gtest/gtest.h>

#include "orvexd/query/client_state.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

TEST(ClientStateManager, DropsAStateNothingHoldsADayAfterItsLastUseUnlessItIsPersisted) {
  testing::TestAssembly test;
  test.assembly->sharedSession = true;
  ASSERT_TRUE(test.assembly->userDefaults->setObject(kORVPersistSessionsKey, true));
  auto manager = std::make_shared<OrvexClientStateManager>(*test.assembly);
  manager->start();
  const auto hoursPass = [&](int count) {
    test.advance(std::chrono::hours(count));
    test.settle();
  };

  auto connected = manager->stateForClientIdentifier("connected");  // as a connection holds it
  std::weak_ptr<ClientState> left = manager->stateForClientIdentifier("left");
  manager->stateForClientIdentifier("persisted")->setUserAgent("Glance/1");
  hoursPass(25);
  EXPECT_TRUE(left.expired());
  // The connection leaves after two days: the day counts from then.
  hoursPass(23);
  std::weak_ptr<ClientState> gone = std::exchange(connected, nullptr);
  hoursPass(23);
  EXPECT_FALSE(gone.expired());
  hoursPass(2);
  EXPECT_TRUE(gone.expired());
  EXPECT_EQ(manager->sessions().size(), 1u);  // the persisted one stays
}

}  // namespace
}  // namespace orvex
