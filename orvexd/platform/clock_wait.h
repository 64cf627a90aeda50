// Threads blocked on a condition, with time-outs measured on a Clock rather than the system
// clock (so that a VirtualClock expires them), and woken with their work accounting handed
// over (see WorkerPool::suspendWork). Shared by CountingSemaphore and WaitGroup.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

// Every member must be called with the owner's mutex held (the one passed to wait()).
class ClockWaiters {
 public:
  // Blocks until woken by wakeOne()/wakeAll() or until `timeout` passes on `clock`. True when
  // woken. A time-out of zero or less does not block.
  bool wait(std::unique_lock<std::mutex>& lock, Clock& clock, Duration timeout) {
    if (timeout <= Duration::zero()) return false;
    auto waiter = std::make_shared<Waiter>();
    waiter->pool = WorkerPool::currentCounted();
    waiters_.push_back(waiter);
    // The firing holds the waiter, never the owner: once the waiter is done with, the owner may
    // be gone, and the firing finds the link unhooked and does nothing.
    auto link = std::make_shared<Link>();
    link->mutex = lock.mutex();
    link->owner = this;
    std::weak_ptr<Waiter> weak = waiter;
    TimerHandle timer = clock.scheduleAfter(timeout, [weak, link] {
      std::lock_guard linkGuard(link->guard);
      if (link->owner == nullptr) return;
      std::lock_guard ownerGuard(*link->mutex);
      if (auto w = weak.lock()) link->owner->settle(w, false);
    });
    // Suspended only now that the time-out is on the clock: a test that sees the pool idle may
    // advance the clock at once, and must find the deadline there.
    WorkerPool::suspendWork(waiter->pool);
    waiter->wakeup.wait(lock, [&] { return waiter->settled; });
    timer.cancel();
    // Unhook without holding the owner's mutex, in the order the firing takes them.
    lock.unlock();
    {
      std::lock_guard linkGuard(link->guard);
      link->owner = nullptr;
    }
    lock.lock();
    return waiter->woken;
  }

  bool wakeOne() {
    if (waiters_.empty()) return false;
    settle(waiters_.front(), true);
    return true;
  }

  void wakeAll() {
    while (!waiters_.empty()) settle(waiters_.front(), true);
  }

 private:
  struct Link {
    std::mutex* mutex = nullptr;
    ClockWaiters* owner = nullptr;  // guarded by guard; null once the waiter has returned
    std::mutex guard;
  };
  struct Waiter {
    std::condition_variable wakeup;
    WorkerPool* pool = nullptr;
    bool settled = false;
    bool woken = false;
  };

  // Takes a copy: callers pass list entries, which the erase below frees.
  void settle(std::shared_ptr<Waiter> waiter,  // NOLINT(performance-unnecessary-value-param)
              bool woken) {
    auto found = std::find(waiters_.begin(), waiters_.end(), waiter);
    if (found == waiters_.end()) return;
    waiters_.erase(found);
    waiter->settled = true;
    waiter->woken = woken;
    WorkerPool::resumeWork(waiter->pool);
    waiter->wakeup.notify_one();
  }

  std::list<std::shared_ptr<Waiter>> waiters_;
};

}  // namespace orvex
