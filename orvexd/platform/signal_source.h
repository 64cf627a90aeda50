// Delivery of a POSIX signal as a job on the worker pool.
//
// The signals a source will handle are blocked in every thread from the start of main()
// (blockSignals), so until the source exists they stay pending instead of killing the process;
// the source then reads them from a signalfd and runs its handler on a worker thread.
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>

namespace orvex {

class WorkerPool;

class SignalSource {
 public:
  // Blocks the signals in the calling thread and every thread it starts afterwards. Call it
  // first thing in main().
  static void blockSignals(std::initializer_list<int> signals);

  // Starts watching `signal`; `handler` runs on a worker thread each time it arrives.
  SignalSource(WorkerPool& pool, int signal, std::function<void()> handler);
  ~SignalSource();
  SignalSource(const SignalSource&) = delete;
  SignalSource& operator=(const SignalSource&) = delete;

  // False when the signalfd could not be created (the reason is logged, and the signal is
  // unblocked in the calling thread so that its default action applies).
  bool isValid() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace orvex
