#include "orvexd/platform/signal_source.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "orvexd/platform/worker_pool.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

TEST(SignalSource, DeliversEachSignalToItsHandlerOnAWorker) {
  // Blocked before the pool's threads exist, as main() does, so only the source sees them.
  SignalSource::blockSignals({SIGUSR1});
  WorkerPool pool(2);
  std::atomic<int> received{0};
  std::atomic<bool> onWorker{true};
  auto source = std::make_unique<SignalSource>(pool, SIGUSR1, [&] {
    if (!pool.isPoolThread()) onWorker = false;
    ++received;
  });
  ASSERT_TRUE(source->isValid());
  for (int expected = 1; expected <= 3; ++expected) {
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    EXPECT_TRUE(testing::eventually([&] { return received >= expected; }));
    EXPECT_EQ(received, expected);
  }
  EXPECT_TRUE(onWorker);
  source.reset();  // with a read outstanding
  pool.waitUntilIdle();
}

}  // namespace
}  // namespace orvex
