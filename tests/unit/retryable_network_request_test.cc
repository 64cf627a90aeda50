#include "orvexd/network/retryable_network_request.h"

#include <gtest/gtest.h>

#include <future>

#include "orvexd/platform/serial_queue.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

constexpr auto kWatchdog = 20s;

class RetryableRequestTest : public ::testing::Test {
 protected:
  RetryableRequestTest() {
    server.handle("GET", "/data", [](const testing::RecordedRequest&) {
      return testing::LoopbackHttpServer::Response{200, "payload", {}};
    });
    server.handle("GET", "/broken", [](const testing::RecordedRequest&) {
      return testing::LoopbackHttpServer::Response{500, "server error", {}};
    });
    HttpSessionConfiguration configuration;
    configuration.identifier = "retry-test";
    session = std::make_shared<HttpSession>(configuration, *platform.pool, *platform.clock,
                                            directory.path().string());
  }

  ORVRetryableNetworkRequest request(const std::string& path, std::optional<WallTime> expire,
                                     bool delayOnFail) {
    HttpRequest http;
    http.url = server.baseUrl() + path;
    return ORVRetryableNetworkRequest(http, expire, delayOnFail);
  }

  // Starts the request and returns the one completion it gets, with how many completions ran.
  HttpDataResult run(const ORVRetryableNetworkRequest& retryable, unsigned retries) {
    std::promise<HttpDataResult> done;
    auto outcome = done.get_future();
    dataTaskWithRetryableRequest(session, retryable, 1, retries, [&](HttpDataResult result) {
      EXPECT_TRUE(session->callbackQueue().isCurrent());
      ++completions;
      done.set_value(std::move(result));
    })->resume();
    EXPECT_EQ(outcome.wait_for(kWatchdog), std::future_status::ready);
    return outcome.get();
  }

  WallTime inAnHour() { return platform.clock->wallNow() + 1h; }

  // Waits, in real time, until a failed attempt has scheduled its delayed retry.
  bool waitForPendingRetry() {
    return testing::eventually([&] { return platform.clock->pendingTimers() > 0; }, kWatchdog);
  }

  testing::TempDir directory;
  testing::VirtualPlatform platform;
  testing::LoopbackHttpServer server;
  std::shared_ptr<HttpSession> session;
  std::atomic<int> completions{0};
};

TEST_F(RetryableRequestTest, RetriesTransportFailuresBeforeExpiryWhileRetriesLast) {
  // Without an expiry, or past it, the first transport failure is final.
  server.failNextRequests(1);
  ASSERT_TRUE(run(request("/data", std::nullopt, true), 5).error);
  server.failNextRequests(1);
  ASSERT_TRUE(run(request("/data", platform.clock->wallNow() - 1s, false), 5).error);
  EXPECT_EQ(server.requestCount(), 2u);

  server.failNextRequests(2);
  HttpDataResult result = run(request("/data", inAnHour(), false), 3);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(result.data, "payload");
  EXPECT_EQ(server.requestCount(), 5u);

  // Two retries allowed, three failures: the third failure is reported.
  server.failNextRequests(3);
  result = run(request("/data", inAnHour(), false), 2);
  ASSERT_TRUE(result.error);
  EXPECT_EQ(result.error->domain, kHttpErrorDomain);
  EXPECT_EQ(server.requestCount(), 8u);

  // An HTTP error status is an answer, never retried.
  result = run(request("/broken", inAnHour(), true), 5);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(result.response->statusCode, 500);
  EXPECT_EQ(server.requestCount(), 9u);
  platform.settle();
  EXPECT_EQ(completions, 5);  // one each
}

TEST_F(RetryableRequestTest, DelayOnFailWaitsAFixedOneAndAHalfSecondsBeforeEachRetry) {
  server.failNextRequests(2);
  std::promise<HttpDataResult> done;
  auto outcome = done.get_future();
  dataTaskWithRetryableRequest(session, request("/data", inAnHour(), true), 1, 5,
                               [&](HttpDataResult result) { done.set_value(std::move(result)); })
      ->resume();

  // The delay does not grow with the attempt number.
  for (size_t attempt = 1; attempt <= 2; ++attempt) {
    ASSERT_TRUE(server.waitForRequests(attempt, kWatchdog));
    ASSERT_TRUE(waitForPendingRetry());
    platform.advance(1499ms);
    platform.settle();
    EXPECT_EQ(server.requestCount(), attempt) << "retried early, attempt " << attempt;
    platform.advance(1ms);
    ASSERT_TRUE(server.waitForRequests(attempt + 1, kWatchdog));
  }
  ASSERT_EQ(outcome.wait_for(kWatchdog), std::future_status::ready);
  const HttpDataResult result = outcome.get();
  EXPECT_FALSE(result.error);
  EXPECT_EQ(result.data, "payload");
  EXPECT_EQ(server.requestCount(), 3u);
}

TEST(MachDurationToMilliseconds, ConvertsThroughTheTimebaseAndTruncates) {
  EXPECT_EQ(mach_duration_to_milliseconds(1'999'999), 1u);
  EXPECT_EQ(mach_duration_to_milliseconds(3'000'000, MonotonicTimebase{125, 3}), 125u);
  EXPECT_EQ(mach_duration_to_milliseconds(5'000'000, MonotonicTimebase{1, 0}), 0u);
  EXPECT_EQ(mach_duration_to_milliseconds(Duration(-5)), 0u);
}

}  // namespace
}  // namespace orvex
