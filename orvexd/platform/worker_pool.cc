#include "orvexd/platform/worker_pool.h"

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {
thread_local WorkerPool* tCurrentPool = nullptr;
// How many counted jobs the calling thread is inside of (a job may run another inline).
thread_local int tCountedDepth = 0;
}  // namespace

struct WorkerPool::Impl {
  // Declared first so that they outlive the io_context: abandoned handlers release their work
  // tokens while the io_context is destroyed.
  std::mutex mutex;  // guards busy
  std::condition_variable idle;
  std::size_t busy = 0;

  std::optional<asio::io_context> io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::vector<std::thread> threads;
};

WorkerPool::WorkerPool(std::size_t threads) : impl_(std::make_unique<Impl>()) {
  impl_->io.emplace();
  impl_->guard.emplace(asio::make_work_guard(*impl_->io));
  const std::size_t count = std::max<std::size_t>(threads, 1);
  impl_->threads.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    impl_->threads.emplace_back([this] {
      tCurrentPool = this;
      impl_->io->run();
      tCurrentPool = nullptr;
    });
  }
}

WorkerPool::~WorkerPool() {
  if (isPoolThread()) {
    std::fputs("a WorkerPool cannot be destroyed by one of its own jobs\n", stderr);
    std::abort();
  }
  impl_->guard.reset();
  impl_->io->stop();
  for (auto& thread : impl_->threads) {
    if (thread.joinable()) thread.join();
  }
  // Abandoned handlers release their work tokens here, while the pool is still whole.
  impl_->io.reset();
}

std::size_t WorkerPool::defaultThreadCount() {
  // Jobs may block for a bounded time (a bag wait of one second, a disk write), so the pool is
  // wider than the machine.
  return std::max(4u, 2 * std::thread::hardware_concurrency());
}

void WorkerPool::post(Job job) {
  asio::post(*impl_->io, [token = WorkToken(*this), job = std::move(job)] { runCounted(job); });
}

void WorkerPool::runCounted(const Job& job) {
  ++tCountedDepth;
  // A job that throws fails alone: the thread, its queue and the process carry on.
  try {
    job();
  } catch (const std::exception& e) {
    OrvexLogForCategory(kOrvexLogGeneral).fault("a queued job failed: %s", e.what());
  } catch (...) {
    OrvexLogForCategory(kOrvexLogGeneral).fault("a queued job failed");
  }
  --tCountedDepth;
}

WorkerPool* WorkerPool::currentCounted() { return tCountedDepth > 0 ? tCurrentPool : nullptr; }

bool WorkerPool::isPoolThread() const { return tCurrentPool == this; }

WorkerPool* WorkerPool::current() { return tCurrentPool; }

asio::io_context& WorkerPool::ioContext() { return *impl_->io; }

void WorkerPool::beginWork() {
  std::lock_guard lock(impl_->mutex);
  ++impl_->busy;
}

void WorkerPool::endWork() {
  std::lock_guard lock(impl_->mutex);
  if (--impl_->busy == 0) impl_->idle.notify_all();
}

void WorkerPool::waitUntilIdle() {
  std::unique_lock lock(impl_->mutex);
  impl_->idle.wait(lock, [this] { return impl_->busy == 0; });
}

void WorkerPool::suspendWork(WorkerPool* pool) {
  if (pool != nullptr) pool->endWork();
}

void WorkerPool::resumeWork(WorkerPool* pool) {
  if (pool != nullptr) pool->beginWork();
}

WorkerPool::WorkToken::WorkToken(WorkerPool& pool) {
  pool.beginWork();
  count_ = std::shared_ptr<void>(nullptr, [&pool](void*) { pool.endWork(); });
}

}  // namespace orvex
