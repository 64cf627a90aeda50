#include "orvexd/platform/wait_group.h"

#include <cstdio>
#include <cstdlib>

namespace orvex {

WaitGroup::WaitGroup(Clock& clock) : clock_(clock) {}

void WaitGroup::enter() {
  std::lock_guard lock(mutex_);
  ++outstanding_;
}

void WaitGroup::leave() {
  std::vector<Pending> ready;
  {
    std::lock_guard lock(mutex_);
    if (outstanding_ == 0) {
      std::fputs("WaitGroup::leave without a matching enter\n", stderr);
      std::abort();
    }
    if (--outstanding_ > 0) return;
    waiters_.wakeAll();
    ready.swap(notifications_);
  }
  for (auto& pending : ready) pending.post(std::move(pending.job));
}

bool WaitGroup::wait(Duration timeout) {
  std::unique_lock lock(mutex_);
  if (outstanding_ == 0) return true;
  return waiters_.wait(lock, clock_, timeout);
}

void WaitGroup::notify(const SerialQueue& queue, std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    if (outstanding_ > 0) {
      notifications_.push_back({queue.weakPoster(), std::move(job)});
      return;
    }
  }
  queue.async(std::move(job));
}

}  // namespace orvex
