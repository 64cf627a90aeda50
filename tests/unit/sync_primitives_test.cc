#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <atomic>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "orvexd/platform/counting_semaphore.h"
#include "orvexd/platform/process_transaction.h"
#include "orvexd/platform/reader_writer_queue.h"
#include "orvexd/platform/wait_group.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

TEST(CountingSemaphore, TimesOutOnlyWhenVirtualTimePassesAndWakesOnSignal) {
  testing::VirtualPlatform platform;
  CountingSemaphore semaphore(*platform.clock);

  semaphore.signal();
  EXPECT_TRUE(semaphore.wait(0s));  // a unit was there

  // A worker waits one second of virtual time; it is parked, so settling does not wait for it.
  std::atomic<int> outcome{-1};
  platform.pool->post([&] { outcome = semaphore.wait(1s) ? 1 : 0; });
  platform.advance(999ms);
  EXPECT_EQ(outcome, -1);
  platform.advance(1ms);
  EXPECT_EQ(outcome, 0);

  // A signal from another thread wakes a waiter before its time-out; the time-out timer,
  // cancelled, then fires nothing when the clock passes it.
  outcome = -1;
  platform.pool->post([&] { outcome = semaphore.wait(1s) ? 1 : 0; });
  platform.settle();  // the waiter is parked
  std::thread([&] { semaphore.signal(); }).join();
  platform.settle();
  EXPECT_EQ(outcome, 1);
  platform.advance(2s);
  EXPECT_FALSE(semaphore.wait(0s));
}

TEST(ReaderWriterQueue, ReadersShareWritersExcludeAndAsyncWritesKeepTheirOrder) {
  testing::VirtualPlatform platform;
  ReaderWriterQueue<std::vector<int>> state("com.zelmor.orvexd.rw", *platform.pool,
                                            *platform.clock);
  // Two readers inside read() at the same time: each waits for the other inside.
  std::latch bothInside(2);
  std::thread first([&] { state.read([&](const auto&) { bothInside.arrive_and_wait(); }); });
  std::thread second([&] { state.read([&](const auto&) { bothInside.arrive_and_wait(); }); });
  first.join();
  second.join();

  // Writers never overlap each other or a reader.
  std::atomic<int> readers{0};
  std::atomic<bool> violated{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        if (t % 2 == 0) {
          state.read([&](const auto&) {
            readers.fetch_add(1);
            readers.fetch_sub(1);
          });
        } else {
          state.write([&](auto& values) {
            if (readers.load() != 0) violated = true;
            values.push_back(-1);
          });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(violated);

  for (int i = 0; i < 100; ++i) state.writeAsync([i](auto& values) { values.push_back(i); });
  platform.settle();
  state.read([](const auto& values) {
    ASSERT_EQ(values.size(), 1100u);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(values[1000 + i], i);
  });
}

TEST(ProcessTransaction, CountsOpenTransactionsByNameAcrossMoves) {
  const auto before = ProcessTransaction::openCount();
  {
    ProcessTransaction fetch("bagFetch"), image("imageFetch"), another("imageFetch");
    ProcessTransaction moved(std::move(another));
    EXPECT_EQ(ProcessTransaction::openTransactions().at("imageFetch"), 2);
    moved = std::move(fetch);  // closes one imageFetch, carries the bagFetch
    EXPECT_EQ(ProcessTransaction::openTransactions().at("imageFetch"), 1);
    EXPECT_EQ(ProcessTransaction::openTransactions().at("bagFetch"), 1);
    EXPECT_EQ(ProcessTransaction::openCount(), before + 2);
  }
  EXPECT_EQ(ProcessTransaction::openCount(), before);
  EXPECT_EQ(ProcessTransaction::openTransactions().count("imageFetch"), 0u);
}

// With the real clock, a time-out must fire even when every worker is blocked waiting for one.
TEST(CountingSemaphore, TimesOutOnTheSystemClockWhenEveryWorkerWaits) {
  WorkerPool pool(1);
  SystemClock clock;
  CountingSemaphore semaphore(clock);
  std::promise<bool> outcome;
  pool.post([&] { outcome.set_value(semaphore.wait(30ms)); });
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(result.get());

  // A worker blocked in wait() is not busy: once the pool is idle, the waiter is parked.
  std::promise<bool> woken;
  pool.post([&] { woken.set_value(semaphore.wait(10s)); });
  pool.waitUntilIdle();
  semaphore.signal();
  auto wokenResult = woken.get_future();
  ASSERT_EQ(wokenResult.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(wokenResult.get());
}

// Things that go away before the work that refers to them: a woken semaphore whose stale
// time-out fires later, a queue that a wait group was to notify, a pool with jobs still queued.
TEST(SyncPrimitives, TeardownBeforeLateFiringsIsHarmless) {
  testing::VirtualPlatform platform;
  {
    auto semaphore = std::make_unique<CountingSemaphore>(*platform.clock);
    std::atomic<int> outcome{-1};
    platform.pool->post([&] { outcome = semaphore->wait(1min) ? 1 : 0; });
    platform.settle();  // the waiter is parked
    semaphore->signal();
    platform.settle();
    EXPECT_EQ(outcome, 1);
    semaphore.reset();
    platform.advance(2min);  // the cancelled time-out must not touch the semaphore
  }
  {
    WaitGroup group(*platform.clock);
    bool ran = false;
    group.enter();
    {
      SerialQueue queue("com.zelmor.orvexd.gone", *platform.pool, *platform.clock);
      group.notify(queue, [&] { ran = true; });
    }
    group.leave();
    platform.settle();
    EXPECT_FALSE(ran);
  }
  {
    std::atomic<int> ran{0};  // outlives the pool, whose running job may still touch it
    WorkerPool pool(1);
    SerialQueue queue("com.zelmor.orvexd.abandoned", pool, *platform.clock);
    // The only worker is held until the pool's destructor has stopped it, so everything after
    // is still queued then.
    pool.post([&pool] {
      while (!pool.ioContext().stopped()) std::this_thread::yield();
    });
    for (int i = 0; i < 100; ++i) {
      queue.async([&] { ++ran; });
      pool.post([&] { ++ran; });
    }
    queue.after(1h, [&] { ++ran; });
  }  // the pool goes with jobs queued and a timer pending
  platform.advance(2h);
}

}  // namespace
}  // namespace orvex
