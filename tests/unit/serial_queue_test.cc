#include "orvexd/platform/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "orvexd/platform/counting_semaphore.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsJobsOneAtATimeInSubmissionOrderPerProducer) {
  testing::VirtualPlatform platform;
  SerialQueue queue("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  constexpr int kProducers = 4;
  constexpr int kJobs = 2000;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::map<int, std::vector<int>> seen;  // queue only
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kJobs; ++i) {
        queue.async([&, p, i] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          seen[p].push_back(i);
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  platform.settle();
  EXPECT_FALSE(overlapped);
  for (int p = 0; p < kProducers; ++p) {
    ASSERT_EQ(seen[p].size(), static_cast<size_t>(kJobs));
    for (int i = 0; i < kJobs; ++i) ASSERT_EQ(seen[p][i], i) << "producer " << p;
  }
}

TEST(SerialQueue, SyncWaitsForTheJobAndRefusesWhereItCouldDeadlock) {
  testing::VirtualPlatform platform(1);
  SerialQueue queue("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  SerialQueue other("com.zelmor.orvexd.other", *platform.pool, *platform.clock);

  // From a thread outside the pool, sync runs the job on the queue, behind earlier asynchronous
  // jobs; with the only worker held, they can only run inside sync().
  testing::Gate workerHeld;
  platform.pool->post([&] { workerHeld.wait(); });
  std::vector<int> order;
  queue.async([&] { order.push_back(1); });
  bool onQueue = false;
  EXPECT_TRUE(queue.sync([&] {
    onQueue = queue.isCurrent();
    order.push_back(2);
  }));
  workerHeld.open();
  EXPECT_TRUE(onQueue);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(queue.syncResult([] { return 42; }), 42);

  // From the queue itself: refused, the job never runs.
  std::atomic<int> ran{0};
  std::optional<bool> fromSelf;
  queue.async([&] { fromSelf = queue.sync([&] { ++ran; }); });
  platform.settle();
  EXPECT_EQ(fromSelf, false);
  EXPECT_EQ(ran, 0);

  // From another queue's job: runs, and holds both queues meanwhile, so a sync back onto the
  // calling queue is refused instead of deadlocking.
  std::optional<bool> fromOtherQueue;
  std::optional<bool> heldBoth;
  std::optional<bool> backOntoCaller;
  other.async([&] {
    fromOtherQueue = queue.sync([&] {
      ++ran;
      heldBoth = queue.isCurrent() && other.isCurrent();
      backOntoCaller = other.sync([&] { ++ran; });
    });
  });
  platform.settle();
  EXPECT_EQ(fromOtherQueue, true);
  EXPECT_EQ(heldBoth, true);
  EXPECT_EQ(backOntoCaller, false);
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(queue.syncResult([&] { return queue.isCurrent() && !other.isCurrent(); }), true);
}

TEST(SerialQueue, TrySyncRunsOnlyOnAnIdleQueueAndNeverWaits) {
  testing::VirtualPlatform platform(1);
  SerialQueue queue("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  bool onQueue = false;
  EXPECT_TRUE(queue.trySync([&] { onQueue = queue.isCurrent(); }));
  EXPECT_TRUE(onQueue);

  // A job waiting for the only worker: refused rather than run ahead of it or waited for.
  testing::Gate workerHeld;
  platform.pool->post([&] { workerHeld.wait(); });
  std::vector<int> order;
  queue.async([&] { order.push_back(1); });
  EXPECT_FALSE(queue.trySync([&] { order.push_back(2); }));
  workerHeld.open();
  platform.settle();
  std::optional<bool> fromSelf;
  queue.async([&] { fromSelf = queue.trySync([&] { order.push_back(3); }); });
  platform.settle();
  EXPECT_EQ(fromSelf, false);
  EXPECT_EQ(order, (std::vector<int>{1}));
}

TEST(SerialQueue, SyncFromEveryWorkerAtOnceDoesNotStarveThePool) {
  // More callers than workers, each blocking in a chain of syncs across three queues while the
  // queues also have asynchronous work: a sync that waited for a free worker would deadlock.
  testing::VirtualPlatform platform;
  SerialQueue first("com.zelmor.orvexd.first", *platform.pool, *platform.clock);
  SerialQueue second("com.zelmor.orvexd.second", *platform.pool, *platform.clock);
  SerialQueue third("com.zelmor.orvexd.third", *platform.pool, *platform.clock);
  int counter = 0;  // third only
  std::atomic<int> asyncRan{0};
  constexpr int kCallers = 64;
  for (int i = 0; i < kCallers; ++i) {
    platform.pool->post([&] {
      ASSERT_TRUE(first.sync([&] {
        second.async([&] { ++asyncRan; });
        ASSERT_TRUE(second.sync([&] { ASSERT_TRUE(third.sync([&] { ++counter; })); }));
      }));
    });
  }
  platform.settle();
  EXPECT_EQ(third.syncResult([&] { return counter; }), kCallers);
  EXPECT_EQ(asyncRan, kCallers);
}

TEST(SerialQueue, JobsASyncCallerRunsForAnotherQueueDoNotPassForItsOwn) {
  // One worker, busy with the caller's job: the earlier job of the target queue can only run on
  // the caller's thread, inside its sync().
  testing::VirtualPlatform platform(1);
  SerialQueue caller("com.zelmor.orvexd.caller", *platform.pool, *platform.clock);
  SerialQueue target("com.zelmor.orvexd.target", *platform.pool, *platform.clock);
  std::optional<bool> earlierSawCaller;
  std::optional<bool> earlierSawTarget;
  std::optional<bool> ownSawCaller;
  caller.async([&] {
    target.async([&] {
      earlierSawCaller = caller.isCurrent();
      earlierSawTarget = target.isCurrent();
    });
    ASSERT_TRUE(target.sync([&] { ownSawCaller = caller.isCurrent(); }));
  });
  platform.settle();
  EXPECT_EQ(earlierSawCaller, false);
  EXPECT_EQ(earlierSawTarget, true);
  EXPECT_EQ(ownSawCaller, true);
}

TEST(SerialQueue, ACallerWaitingInSyncLetsVirtualTimeMove) {
  // The queue's job waits a virtual second on a semaphore while a worker waits in sync() for
  // the queue: advancing the clock must not wait for that worker.
  testing::VirtualPlatform platform;
  SerialQueue queue("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  CountingSemaphore semaphore(*platform.clock);
  std::atomic<bool> timedOut{false};
  std::atomic<bool> syncRan{false};
  queue.async([&] { timedOut = !semaphore.wait(std::chrono::seconds(1)); });
  platform.pool->post([&] { ASSERT_TRUE(queue.sync([&] { syncRan = true; })); });
  platform.advance(std::chrono::seconds(2));
  platform.settle();
  EXPECT_TRUE(timedOut);
  EXPECT_TRUE(syncRan);
}

// Deadline order and cancellation are the clock's (VirtualClock's test).
TEST(SerialQueue, AfterRunsOnTheQueueAtItsVirtualDeadlineAndNotOnceTheQueueIsGone) {
  testing::VirtualPlatform platform;
  auto queue =
      std::make_unique<SerialQueue>("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  std::optional<bool> onQueue;
  queue->after(3min, [&, q = queue.get()] { onQueue = q->isCurrent(); });
  platform.advance(179s);
  EXPECT_FALSE(onQueue);
  platform.advance(1s);
  EXPECT_EQ(onQueue, true);

  bool late = false;
  queue->after(1s, [&] { late = true; });
  queue.reset();
  platform.advance(1min);
  EXPECT_FALSE(late);
}

TEST(SerialQueueDeathTest, AssertCurrentStopsTheProcessOffTheQueue) {
  testing::VirtualPlatform platform;
  SerialQueue queue("com.zelmor.orvexd.test", *platform.pool, *platform.clock);
  EXPECT_TRUE(queue.sync([&] { queue.assertCurrent("job"); }));
  EXPECT_DEATH(queue.assertCurrent("_updateState"),
               "_updateState must run on queue com.zelmor.orvexd.test");
}

}  // namespace
}  // namespace orvex
