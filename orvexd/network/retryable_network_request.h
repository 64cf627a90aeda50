// A data task that is started again after a transport failure, a bounded number of times, for
// as long as an expiry time has not passed.
//
// Only transport failures are retried: an answer with an HTTP error status is an answer. A
// request without an expiry counts as long expired, so its first transport failure is reported
// at once whatever the retry count. A retry waits a fixed 1.5 s when `delayOnFail` is set (there
// is no growing back-off), and none otherwise. A cancelled task is not retried.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/http_session.h"

namespace orvex {

struct ORVRetryableNetworkRequest {
  ORVRetryableNetworkRequest() = default;
  ORVRetryableNetworkRequest(HttpRequest request, std::optional<WallTime> expiry, bool delay)
      : httpRequest(std::move(request)), expire(expiry), delayOnFail(delay) {}

  HttpRequest httpRequest;
  // No retry is made after this time; none means no retry at all.
  std::optional<WallTime> expire;
  bool delayOnFail = false;
};

// The fixed wait before a retry of a request with `delayOnFail`: 2^1 - 0.5 seconds.
inline constexpr Duration kRetryDelayOnFail = std::chrono::milliseconds(1500);

using RetryableCompletion = std::function<void(HttpDataResult)>;

// Makes the first data task for `request`, not yet resumed: the caller resumes it. Retries are
// new tasks the caller never sees, resumed from the worker pool after the delay; `completion`
// runs once, with the outcome of the last attempt, on the session's callback queue. The retries
// hold the session weakly: once it is gone, the last failure is reported from the worker pool.
// A delayed retry still pending when the clock itself is destroyed (at exit) never completes.
std::shared_ptr<HttpTask> dataTaskWithRetryableRequest(const std::shared_ptr<HttpSession>& session,
                                                       const ORVRetryableNetworkRequest& request,
                                                       unsigned attempt, unsigned retriesLeft,
                                                       RetryableCompletion completion);

// Converts monotonic clock ticks to milliseconds for timing records, through the clock's
// timebase (ticks × numer ÷ denom are nanoseconds), in floating point and truncated. A timebase
// with a zero denominator gives 0.
struct MonotonicTimebase {
  uint32_t numer = 1;
  uint32_t denom = 1;
};
uint64_t mach_duration_to_milliseconds(uint64_t duration, MonotonicTimebase timebase = {});
inline uint64_t mach_duration_to_milliseconds(Duration duration) {
  return duration.count() <= 0 ? 0
                               : mach_duration_to_milliseconds(
                                     static_cast<uint64_t>(duration.count()), MonotonicTimebase{});
}

}  // namespace orvex
