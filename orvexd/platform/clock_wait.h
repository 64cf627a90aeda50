// Waiting on a condition variable with a time-out measured on a Clock rather than the system
// clock, so that a VirtualClock can expire it. Shared by CountingSemaphore and WaitGroup.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

// Waits with `lock` (on `mutex`) held until `ready()` holds or `timeout` passes on `clock`.
// Returns ready()'s last value. The calling worker thread is parked meanwhile.
template <typename Ready>
bool waitOnClock(Clock& clock, std::mutex& mutex, std::unique_lock<std::mutex>& lock,
                 std::condition_variable& changed, Duration timeout, Ready ready) {
  if (ready()) return true;
  // The firing reaches the waiter's flag through `link`; the waiter unhooks it before
  // returning, under link's own mutex, so a late firing touches nothing that has gone.
  struct Link {
    std::mutex mutex;
    bool* expired;
    std::mutex* waitMutex;
    std::condition_variable* changed;
  };
  bool expired = false;
  auto link = std::make_shared<Link>();
  link->expired = &expired;
  link->waitMutex = &mutex;
  link->changed = &changed;
  TimerHandle timer = clock.scheduleAfter(timeout, [link] {
    std::lock_guard guard(link->mutex);
    if (link->expired == nullptr) return;
    std::lock_guard waitGuard(*link->waitMutex);
    *link->expired = true;
    link->changed->notify_all();
  });
  {
    WorkerPool::ParkScope parked;
    changed.wait(lock, [&] { return expired || ready(); });
  }
  const bool result = ready();
  lock.unlock();
  timer.cancel();
  {
    std::lock_guard guard(link->mutex);
    link->expired = nullptr;
  }
  lock.lock();
  return result;
}

}  // namespace orvex
