// A one-shot delayed job on a component's queue that can be re-armed and cancelled.
//
// Every arm() and cancel() starts a new generation; a firing runs its job only if the
// generation it captured is still current, the timer object still exists and its owner is
// still alive (the owner is held weakly and kept alive for the job's duration). A stale firing —
// from an earlier arm, after cancel(), or after the owner has gone — does nothing, even when
// the underlying clock could not withdraw it in time.
//
// arm(), cancel() and the destructor must run on the timer's queue; the job runs there.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class OneShotTimer {
 public:
  explicit OneShotTimer(const SerialQueue& queue);
  ~OneShotTimer();
  OneShotTimer(const OneShotTimer&) = delete;
  OneShotTimer& operator=(const OneShotTimer&) = delete;

  void arm(Duration delay, std::weak_ptr<void> owner, std::function<void()> job);
  void cancel();

  bool isArmed() const;

 private:
  struct State {
    uint64_t generation = 0;  // queue only
    bool armed = false;       // queue only
  };
  const SerialQueue& queue_;
  std::shared_ptr<State> state_;
  TimerHandle pending_;
};

}  // namespace orvex
