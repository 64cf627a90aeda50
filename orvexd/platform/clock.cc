#include "orvexd/platform/clock.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>

#include "orvexd/platform/worker_pool.h"

namespace orvex {

struct SystemClock::Impl {
  explicit Impl(WorkerPool& pool) : strand(asio::make_strand(pool.ioContext())) {}
  // Timers are created and started on one strand so that no two threads touch asio's timer
  // service for the same timer at once.
  asio::strand<asio::io_context::executor_type> strand;
};

SystemClock::SystemClock(WorkerPool& pool) : impl_(std::make_unique<Impl>(pool)) {}
SystemClock::~SystemClock() = default;

WallTime SystemClock::wallNow() const { return std::chrono::system_clock::now(); }

MonotonicTime SystemClock::monotonicNow() const { return std::chrono::steady_clock::now(); }

namespace {

// A firing on the clock's strand. The asio timer is touched only on the strand.
struct SystemTimerState final : TimerHandle::State {
  explicit SystemTimerState(asio::strand<asio::io_context::executor_type> s)
      : strand(std::move(s)) {}
  void release() override {
    asio::post(strand, [self = weak_from_this()] {
      if (auto state = self.lock(); state && state->timer) state->timer->cancel();
    });
  }
  std::weak_ptr<SystemTimerState> weak_from_this() { return self; }

  asio::strand<asio::io_context::executor_type> strand;
  std::unique_ptr<asio::steady_timer> timer;  // strand only
  std::weak_ptr<SystemTimerState> self;
};

}  // namespace

TimerHandle SystemClock::scheduleAfter(Duration delay, std::function<void()> fire) {
  auto state = std::make_shared<SystemTimerState>(impl_->strand);
  state->self = state;
  const auto deadline = std::chrono::steady_clock::now() + delay;
  asio::post(impl_->strand, [state, deadline, fire = std::move(fire)]() mutable {
    if (state->cancelled.load()) return;
    state->timer = std::make_unique<asio::steady_timer>(state->strand, deadline);
    // The handler keeps the state (and so the timer) alive until it has run.
    state->timer->async_wait([state, fire = std::move(fire)](const std::error_code& error) {
      if (!error && !state->cancelled.load()) fire();
      state->timer.reset();
    });
  });
  return TimerHandle(std::move(state));
}

double millisecondsBetween(MonotonicTime start, MonotonicTime end) {
  if (end <= start) return 0;
  return std::chrono::duration<double, std::milli>(end - start).count();
}

}  // namespace orvex
