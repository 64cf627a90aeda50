#include "orvexd/platform/one_shot_timer.h"

namespace orvex {

OneShotTimer::OneShotTimer(const SerialQueue& queue)
    : queue_(queue), state_(std::make_shared<State>()) {}

OneShotTimer::~OneShotTimer() { pending_.cancel(); }

void OneShotTimer::arm(Duration delay, std::weak_ptr<void> owner, std::function<void()> job) {
  queue_.assertCurrent("OneShotTimer::arm");
  pending_.cancel();
  const uint64_t generation = ++state_->generation;
  state_->armed = true;
  std::weak_ptr<State> weakState = state_;
  pending_ =
      queue_.after(delay, [weakState, generation, owner = std::move(owner), job = std::move(job)] {
        auto state = weakState.lock();
        if (!state || state->generation != generation || !state->armed) return;
        auto alive = owner.lock();
        if (!alive) return;
        state->armed = false;
        job();
      });
}

void OneShotTimer::cancel() {
  queue_.assertCurrent("OneShotTimer::cancel");
  ++state_->generation;
  state_->armed = false;
  pending_.cancel();
}

bool OneShotTimer::isArmed() const {
  queue_.assertCurrent("OneShotTimer::isArmed");
  return state_->armed;
}

}  // namespace orvex
