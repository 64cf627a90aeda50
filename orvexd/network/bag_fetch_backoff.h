// When the bag controller may start its next bag fetch, after fetches that failed.
//
// Reads of a missing or stale bag would otherwise start a fetch each, and with the back-end gone
// every keystroke of every client would become a bag request. After a failed fetch no other
// fetch starts for a while: 1 s after the first failure, doubling with each further one up to
// 5 minutes, and never less than the Retry-After of a 429 or 503 answer (a number of seconds or
// an HTTP date; honoured up to the 4 hours a bag lives). A fetch that brings a bag ends the
// back-off at once.
//
// Threading: any thread; `mutex_` guards every field.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string_view>

#include "orvexd/base/http_types.h"
#include "orvexd/platform/clock.h"

namespace orvex {

class BagFetchBackoff {
 public:
  static constexpr Duration kFirstDelay = std::chrono::seconds(1);
  static constexpr Duration kMaxDelay = std::chrono::minutes(5);
  static constexpr Duration kMaxRetryAfter = std::chrono::hours(4);

  // None when a fetch may start at `now`; otherwise how long is left.
  std::optional<Duration> remaining(MonotonicTime now) const;
  void fetchSucceeded();
  // Counts a failure at `now`; the wait before the next fetch may start.
  Duration fetchFailed(MonotonicTime now, std::optional<Duration> retryAfter);

  // The wait a 429 or 503 answer asks for in its Retry-After header, at most kMaxRetryAfter;
  // none for other answers and for values that are neither seconds nor an HTTP date.
  static std::optional<Duration> retryAfter(const HttpResponse& response, WallTime now);
  // "Sun, 06 Nov 1994 08:49:37 GMT", the HTTP date format.
  static std::optional<WallTime> parseHttpDate(std::string_view text);

 private:
  mutable std::mutex mutex_;
  unsigned failures_ = 0;                   // consecutive failed fetches
  std::optional<MonotonicTime> notBefore_;  // no fetch starts before this
};

}  // namespace orvex
