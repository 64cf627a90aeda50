#include "orvexd/platform/clock.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <thread>
#include <unordered_map>

namespace orvex {

namespace {
struct SystemTimerState;
}

// Everything below `io` is touched only on the timer thread.
struct SystemClock::Impl {
  asio::io_context io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::thread thread;
  std::unordered_map<const SystemTimerState*, std::shared_ptr<SystemTimerState>> live;
};

namespace {

struct SystemTimerState final : TimerHandle::State, std::enable_shared_from_this<SystemTimerState> {
  explicit SystemTimerState(std::weak_ptr<SystemClock::Impl> c) : clock(std::move(c)) {}

  void release() override {
    auto impl = clock.lock();
    if (!impl) return;
    asio::post(impl->io, [self = weak_from_this()] {
      if (auto state = self.lock(); state && state->timer) state->timer->cancel();
    });
  }

  std::weak_ptr<SystemClock::Impl> clock;
  std::unique_ptr<asio::steady_timer> timer;  // timer thread only
};

}  // namespace

SystemClock::SystemClock() : impl_(std::make_shared<Impl>()) {
  impl_->guard.emplace(asio::make_work_guard(impl_->io));
  impl_->thread = std::thread([impl = impl_.get()] { impl->io.run(); });
  pthread_setname_np(impl_->thread.native_handle(), "orvex-timer");
}

SystemClock::~SystemClock() {
  asio::post(impl_->io, [impl = impl_.get()] {
    for (auto& [key, state] : impl->live) {
      state->cancelled.store(true);
      if (state->timer) state->timer->cancel();
    }
  });
  impl_->guard.reset();
  impl_->thread.join();  // returns once every cancelled wait has completed
}

WallTime SystemClock::wallNow() const { return std::chrono::system_clock::now(); }

MonotonicTime SystemClock::monotonicNow() const { return std::chrono::steady_clock::now(); }

TimerHandle SystemClock::scheduleAfter(Duration delay, std::function<void()> fire) {
  auto state = std::make_shared<SystemTimerState>(impl_);
  const auto deadline = deadlineAfter(std::chrono::steady_clock::now(), delay);
  asio::post(impl_->io, [impl = impl_.get(), state, deadline, fire = std::move(fire)]() mutable {
    if (state->cancelled.load()) return;
    impl->live.emplace(state.get(), state);
    state->timer = std::make_unique<asio::steady_timer>(impl->io, deadline);
    state->timer->async_wait(
        [impl, key = state.get(), fire = std::move(fire)](const std::error_code& error) {
          auto found = impl->live.find(key);
          if (found == impl->live.end()) return;
          auto done = std::move(found->second);
          impl->live.erase(found);
          if (!error && !done->cancelled.load()) fire();
          done->timer.reset();
        });
  });
  return TimerHandle(std::move(state));
}

MonotonicTime deadlineAfter(MonotonicTime from, Duration delay) {
  if (delay > Duration::zero() && from > MonotonicTime::max() - delay) return MonotonicTime::max();
  if (delay < Duration::zero() && from < MonotonicTime::min() - delay) return MonotonicTime::min();
  return from + delay;
}

}  // namespace orvex
