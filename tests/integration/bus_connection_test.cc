// Replies sent from threads other than the bus thread, which send them in the waiting loop's
// place: they arrive whole however large, and never before a job posted ahead of them.
#include "orvexd/platform/bus_connection.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

constexpr const char* kName = "com.zelmor.orvexd.BusConnectionTest";
constexpr const char* kInterface = "com.zelmor.orvexd.BusConnectionTest";

TEST(BusConnectionTest, RepliesFromOtherThreadsArriveWholeAndAfterJobsPostedBefore) {
  testing::TempDir dir;
  testing::PrivateBus bus(dir.path());
  BusConnection server(bus.connect());
  std::string error;
  ASSERT_TRUE(server.requestName(kName, &error)) << error;

  // Each call is answered from a thread of its own, made as if on the bus thread. With `afterJob`,
  // the thread posts a job first, and the reply must find it done; without, it replies once the
  // loop is back to waiting, in the loop's place.
  std::mutex mutex;
  std::vector<std::thread> repliers;
  std::atomic<int> outOfOrder{0}, offLoop{0};
  auto object = sdbus::createObject(server.connection(), "/test");
  object->registerMethod("Echo")
      .onInterface(kInterface)
      .implementedAs([&](sdbus::Result<std::string>&& result, uint32_t size, bool afterJob) {
        BusReply<std::string> reply(server, std::move(result));
        std::lock_guard lock(mutex);
        repliers.emplace_back([&, reply, size, afterJob] {
          auto posted = std::make_shared<std::atomic<bool>>(!afterJob);
          if (afterJob) {
            server.post([posted] { posted->store(true); });
          } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
          }
          reply.sendFrom([&, posted, size] {
            if (!posted->load()) ++outOfOrder;
            if (!server.isLoopThread()) ++offLoop;
            return std::make_tuple(std::string(size, 'x'));
          });
        });
      });
  object->finishRegistration();
  std::thread loop([&] { server.runEventLoop(); });
  // Ends the loop and the repliers however the test leaves, a failed assertion included.
  struct Joiner {
    std::function<void()> join;
    ~Joiner() { join(); }
  } joiner{[&] {
    server.stop();
    if (loop.joinable()) loop.join();
    std::lock_guard lock(mutex);
    for (auto& thread : repliers) {
      if (thread.joinable()) thread.join();
    }
  }};

  auto client = bus.connect();
  auto proxy = sdbus::createProxy(*client, kName, "/test");
  // 24 MiB does not fit the socket's buffer (8 MiB at most) at once: the loop must be rung to
  // send the rest.
  for (const uint32_t size : {16u, 1024u, 24u << 20, 16u}) {
    for (int i = 0; i < (size > 1024 ? 4 : 20); ++i) {
      std::string answer;
      proxy->callMethod("Echo")
          .onInterface(kInterface)
          .withArguments(size, i % 2 == 0)
          .withTimeout(std::chrono::seconds(20))
          .storeResultsTo(answer);
      ASSERT_EQ(answer.size(), size);
      ASSERT_EQ(answer.find_first_not_of('x'), std::string::npos);
    }
  }
  joiner.join();
  EXPECT_EQ(outOfOrder.load(), 0);
  EXPECT_EQ(offLoop.load(), 0);
}

}  // namespace
}  // namespace orvex
