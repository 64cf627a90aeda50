#include "orvexd/platform/counting_semaphore.h"

#include "orvexd/platform/clock_wait.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

CountingSemaphore::CountingSemaphore(Clock& clock, int64_t initial)
    : clock_(clock), count_(initial) {}

void CountingSemaphore::signal() {
  std::lock_guard lock(mutex_);
  ++count_;
  changed_.notify_one();
}

bool CountingSemaphore::wait(Duration timeout) {
  std::unique_lock lock(mutex_);
  if (!waitOnClock(clock_, mutex_, lock, changed_, timeout, [this] { return count_ > 0; })) {
    return false;
  }
  --count_;
  return true;
}

void CountingSemaphore::waitForever() {
  std::unique_lock lock(mutex_);
  WorkerPool::ParkScope parked;
  changed_.wait(lock, [this] { return count_ > 0; });
  --count_;
}

}  // namespace orvex
