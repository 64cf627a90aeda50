#include "orvexd/platform/counting_semaphore.h"

namespace orvex {

CountingSemaphore::CountingSemaphore(Clock& clock, int64_t initial)
    : clock_(clock), count_(initial) {}

void CountingSemaphore::signal() {
  std::lock_guard lock(mutex_);
  // A waiter takes the unit directly, so that a later wait() cannot overtake it.
  if (!waiters_.wakeOne()) ++count_;
}

bool CountingSemaphore::wait(Duration timeout) {
  std::unique_lock lock(mutex_);
  if (count_ > 0) {
    --count_;
    return true;
  }
  return waiters_.wait(lock, clock_, timeout);
}

}  // namespace orvex
