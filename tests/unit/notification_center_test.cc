#include "orvexd/platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace orvex {
namespace {

TEST(NotificationCenter, DeliversByNameAndSenderWithUserInfo) {
  NotificationCenter center;
  int bagSender = 0;
  int otherSender = 0;
  std::vector<std::string> seen;
  auto any = center.addObserver("ORVBagChangeNotification", nullptr, [&](const Notification& n) {
    const auto* version = n.userInfoValue<std::string>("bag");
    seen.push_back("any:" + (version ? *version : std::string("-")));
  });
  auto fromBag = center.addObserver("ORVBagChangeNotification", &bagSender,
                                    [&](const Notification&) { seen.push_back("bag-only"); });
  auto unrelated = center.addObserver("ORVStartup", nullptr,
                                      [&](const Notification&) { seen.push_back("startup"); });

  center.post("ORVBagChangeNotification", &bagSender, {{"bag", std::string("7")}});
  center.post("ORVBagChangeNotification", &otherSender, {{"bag", 7}});  // not a string
  EXPECT_EQ(seen, (std::vector<std::string>{"any:7", "bag-only", "any:-"}));
  EXPECT_EQ(center.observerCount("ORVBagChangeNotification"), 2u);

  fromBag.reset();
  seen.clear();
  center.post("ORVBagChangeNotification", &bagSender);
  EXPECT_EQ(seen, (std::vector<std::string>{"any:-"}));
}

TEST(NotificationCenter, ObserversMayRemoveThemselvesAndOthersWhileBeingCalled) {
  NotificationCenter center;
  std::vector<std::string> seen;
  ObserverToken second;
  ObserverToken first = center.addObserver("tick", nullptr, [&](const Notification&) {
    seen.push_back("first");
    first.reset();   // itself
    second.reset();  // the next one, which must then not be called
  });
  second = center.addObserver("tick", nullptr, [&](const Notification&) { seen.push_back("2"); });
  ObserverToken nested = center.addObserver("tick", nullptr, [&](const Notification&) {
    seen.push_back("nested");
    center.post("tock");  // a post from inside a post
  });
  ObserverToken inner = center.addObserver("tock", nullptr, [&](const Notification&) {
    seen.push_back("inner");
    nested.reset();  // the observer whose call we are inside of
  });
  center.post("tick");
  center.post("tick");
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "nested", "inner"}));
  EXPECT_EQ(center.observerCount("tick"), 0u);
}

TEST(NotificationCenter, RemovalWaitsForACallUnderWayOnAnotherThread) {
  NotificationCenter center;
  std::atomic<bool> alive{true};
  std::atomic<int> calls{0};
  std::atomic<bool> stop{false};
  auto token = std::make_unique<ObserverToken>(
      center.addObserver("event", nullptr, [&](const Notification&) {
        // Touching `alive` after the token is gone would be a use after removal.
        EXPECT_TRUE(alive.load());
        ++calls;
      }));
  std::thread poster([&] {
    while (!stop) center.post("event");
  });
  while (calls < 100) std::this_thread::yield();
  token.reset();
  alive = false;
  const int after = calls;
  for (int i = 0; i < 1000; ++i) center.post("event");
  stop = true;
  poster.join();
  EXPECT_EQ(calls, after);
}

}  // namespace
}  // namespace orvex
