// State shared by many readers and changed by exclusive ("barrier") writes.
//
// The queue owns the state it guards: readers see it through read() under a shared lock, all at
// once; write() waits for the readers to leave and changes it alone. writeAsync() queues a write
// behind the earlier asynchronous writes, in order, and returns at once. Reads and writes must
// not be nested on one thread (a write inside a read would wait for itself).
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <utility>

#include "orvexd/platform/serial_queue.h"

namespace orvex {

template <typename State>
class ReaderWriterQueue {
 public:
  ReaderWriterQueue(std::string label, WorkerPool& pool, Clock& clock, State initial = State())
      : shared_(std::make_shared<Shared>(std::move(initial))),
        writes_(std::move(label), pool, clock) {}

  template <typename F>
  auto read(F&& fn) const -> std::invoke_result_t<F&, const State&> {
    std::shared_lock lock(shared_->mutex);
    return fn(std::as_const(shared_->state));
  }

  template <typename F>
  auto write(F&& fn) -> std::invoke_result_t<F&, State&> {
    std::unique_lock lock(shared_->mutex);
    return fn(shared_->state);
  }

  // The write runs on a worker thread; it sees the state even if the queue object has been
  // destroyed meanwhile.
  void writeAsync(std::function<void(State&)> job) {
    writes_.async([shared = shared_, job = std::move(job)] {
      std::unique_lock lock(shared->mutex);
      job(shared->state);
    });
  }

  const std::string& label() const { return writes_.label(); }

 private:
  struct Shared {
    explicit Shared(State s) : state(std::move(s)) {}
    std::shared_mutex mutex;  // guards state
    State state;
  };
  std::shared_ptr<Shared> shared_;
  SerialQueue writes_;  // orders the asynchronous writes
};

}  // namespace orvex
