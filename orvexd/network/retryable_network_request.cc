#include "orvexd/network/retryable_network_request.h"

#include <utility>

#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

bool isCancellation(const OrvexError& error) {
  return error.domain == kHttpErrorDomain && error.code == kHttpErrorCancelled;
}

// Past the expiry, or no expiry at all.
bool isExpired(const ORVRetryableNetworkRequest& request, const Clock& clock) {
  if (!request.expire) return true;
  return clock.wallNow() - *request.expire > Duration::zero();
}

}  // namespace

std::shared_ptr<HttpTask> dataTaskWithRetryableRequest(const std::shared_ptr<HttpSession>& session,
                                                       const ORVRetryableNetworkRequest& request,
                                                       unsigned attempt, unsigned retriesLeft,
                                                       RetryableCompletion completion) {
  std::weak_ptr<HttpSession> weakSession = session;
  return session->dataTask(
      request.httpRequest, [weakSession, request, attempt, retriesLeft,
                            completion = std::move(completion)](HttpDataResult result) mutable {
        if (!result.error) {
          completion(std::move(result));
          return;
        }
        auto session = weakSession.lock();
        if (!session || isCancellation(*result.error) || isExpired(request, session->clock()) ||
            retriesLeft == 0) {
          completion(std::move(result));
          return;
        }
        auto retry = [weakSession, request, attempt, retriesLeft,
                      completion = std::move(completion), result = std::move(result)]() mutable {
          auto session = weakSession.lock();
          if (!session) {
            completion(std::move(result));
            return;
          }
          dataTaskWithRetryableRequest(session, request, attempt + 1, retriesLeft - 1,
                                       std::move(completion))
              ->resume();
        };
        WorkerPool& pool = session->workerPool();
        if (!request.delayOnFail) {
          pool.post(std::move(retry));
          return;
        }
        // The timer thread only hands the retry on to the pool. The pool is the one the session
        // runs on, which outlives the session's tasks.
        session->clock().scheduleAfter(
            kRetryDelayOnFail,
            [&pool, retry = std::move(retry)]() mutable { pool.post(std::move(retry)); });
      });
}

uint64_t mach_duration_to_milliseconds(uint64_t duration, MonotonicTimebase timebase) {
  if (timebase.denom == 0) return 0;
  const double milliseconds =
      static_cast<double>(duration) * timebase.numer / timebase.denom / 1'000'000.0;
  return static_cast<uint64_t>(milliseconds);
}

}  // namespace orvex
