#include "orvexd/platform/serial_queue.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "orvexd/core/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

struct SerialQueue::Impl {
  Impl(std::string l, WorkerPool& p, Clock& c)
      : label(std::move(l)), pool(p), clock(c), strand(asio::make_strand(p.ioContext())) {}

  void post(Job job) {
    asio::post(strand, [token = WorkerPool::WorkToken(pool), job = std::move(job)] {
      WorkerPool::runCounted(job);
    });
  }

  const std::string label;
  WorkerPool& pool;
  Clock& clock;
  asio::strand<asio::io_context::executor_type> strand;
};

SerialQueue::SerialQueue(std::string label, WorkerPool& pool, Clock& clock)
    : impl_(std::make_shared<Impl>(std::move(label), pool, clock)) {}

SerialQueue::~SerialQueue() = default;

const std::string& SerialQueue::label() const { return impl_->label; }

Clock& SerialQueue::clock() const { return impl_->clock; }

void SerialQueue::async(Job job) const { impl_->post(std::move(job)); }

bool SerialQueue::sync(const Job& job) const {
  if (isCurrent()) {
    OrvexLogForCategory(kOrvexLogGeneral).fault("sync refused: already on queue %s", impl_->label);
    return false;
  }
  if (impl_->pool.isPoolThread()) {
    OrvexLogForCategory(kOrvexLogGeneral)
        .fault("sync refused: queue %s waited on from a worker thread", impl_->label);
    return false;
  }
  std::promise<void> done;
  auto finished = done.get_future();
  impl_->post([&job, &done] {
    job();
    done.set_value();
  });
  finished.wait();
  return true;
}

TimerHandle SerialQueue::after(Duration delay, Job job) const {
  std::weak_ptr<Impl> weak = impl_;
  return impl_->clock.scheduleAfter(delay, [weak, job = std::move(job)]() mutable {
    if (auto queue = weak.lock()) queue->post(std::move(job));
  });
}

std::function<void(SerialQueue::Job)> SerialQueue::weakPoster() const {
  std::weak_ptr<Impl> weak = impl_;
  return [weak](Job job) {
    if (auto queue = weak.lock()) queue->post(std::move(job));
  };
}

bool SerialQueue::isCurrent() const { return impl_->strand.running_in_this_thread(); }

void SerialQueue::assertCurrent(const char* what) const {
  if (isCurrent()) return;
  std::fprintf(stderr, "%s must run on queue %s\n", what, impl_->label.c_str());
  OrvexLogForCategory(kOrvexLogGeneral).fault("%s must run on queue %s", what, impl_->label);
  flushLogs();
  std::abort();
}

}  // namespace orvex
