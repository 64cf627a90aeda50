#include "orvexd/platform/serial_queue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

// The queues whose jobs the calling thread is running, innermost first, as a list of nodes on
// the stack of the frames that run them. A thread holds more than one when a job of one queue
// calls sync() on another and runs that queue's job itself. A plain pointer, so it stays usable
// while the thread's other thread-locals are destroyed at exit.
struct HeldQueue {
  const void* queue;
  const HeldQueue* outer;
};
thread_local const HeldQueue* tHeldQueues = nullptr;

// Marks the calling thread as running a job of `queue` for the life of the guard; with
// `alone`, as running that queue's job only.
class HoldQueue {
 public:
  HoldQueue(const void* queue, bool alone)
      : node_{queue, alone ? nullptr : tHeldQueues}, saved_(tHeldQueues) {
    tHeldQueues = &node_;
  }
  ~HoldQueue() { tHeldQueues = saved_; }
  HoldQueue(const HoldQueue&) = delete;
  HoldQueue& operator=(const HoldQueue&) = delete;

 private:
  HeldQueue node_;
  const HeldQueue* saved_;
};

// Jobs a pool thread runs before handing the queue back to the pool, so that one busy queue
// cannot keep a worker from the others.
constexpr int kJobsPerTurn = 16;

}  // namespace

struct SerialQueue::Impl : std::enable_shared_from_this<Impl> {
  // A caller blocked in sync(); guarded by the queue's mutex.
  struct Waiter {
    bool done = false;
    // The pool whose busy count the waiter gave up while blocked, to be handed back by whoever
    // wakes it before it can run again, so that the pool never looks idle in between.
    WorkerPool* suspended = nullptr;
  };
  struct Entry {
    Job job;
    // Counts an asynchronous job as pool work until it has run. A sync() job has none: its
    // caller is counted already, as busy or, while blocked, as suspended.
    std::optional<WorkerPool::WorkToken> token;
    Waiter* waiter = nullptr;  // the sync() caller waiting for this job, if any
  };

  Impl(std::string l, WorkerPool& p, Clock& c) : label(std::move(l)), pool(p), clock(c) {}

  void post(Job job) {
    bool turn = false;
    {
      std::lock_guard lock(mutex);
      jobs.push_back(Entry{std::move(job), WorkerPool::WorkToken(pool)});
      turn = claimTurnLocked();
    }
    // Asked for after the lock is released, so that the worker it wakes does not wait for it.
    if (turn) postTurn();
  }

  // Asks the pool for a turn unless a thread is already on the queue or a turn is pending.
  void scheduleLocked() {
    if (claimTurnLocked()) postTurn();
  }

  // Whether the caller is to post a turn: none is pending or running, and there are jobs.
  bool claimTurnLocked() {
    if (running || turnPosted || jobs.empty()) return false;
    turnPosted = true;
    return true;
  }

  // The turn keeps the queue alive: jobs already submitted run even if the SerialQueue that
  // owns it is destroyed meanwhile.
  void postTurn() {
    pool.post([self = shared_from_this()] { self->takeTurn(); });
  }

  void takeTurn() {
    std::unique_lock lock(mutex);
    turnPosted = false;
    if (running) return;  // a sync() caller is running the queue; it reschedules when done
    runJobs(lock, nullptr, kJobsPerTurn);
  }

  // Runs queued jobs on the calling thread, in order, until `caller`'s own job has run or, for a
  // turn from the pool, `limit` jobs have run; then releases the queue. Called and returns with
  // the lock held.
  void runJobs(std::unique_lock<std::mutex>& lock, const Waiter* caller, int limit) {
    running = true;
    int ran = 0;
    while (!jobs.empty() && (caller != nullptr ? !caller->done : ran < limit)) {
      Entry entry = std::move(jobs.front());
      jobs.pop_front();
      // From here the job is counted as the running thread's own work: the pool's turn, or the
      // sync() caller's job.
      entry.token.reset();
      lock.unlock();
      runEntry(entry, entry.waiter != nullptr && entry.waiter == caller);
      entry.job = nullptr;  // release what the job captured before taking the lock
      lock.lock();
      ++ran;
      if (entry.waiter != nullptr) {
        entry.waiter->done = true;
        wake(*entry.waiter);
        // Its caller may go on at once; the queue is not released to it until this turn ends.
        changed.notify_all();
      }
    }
    running = false;
    scheduleLocked();
    changed.notify_all();
  }

  // A sync() caller's own job runs holding the caller's queues too; any other job runs holding
  // only this queue, as it would on a worker of its own, so it never passes for a job of the
  // queues the caller happens to hold.
  void runEntry(const Entry& entry, bool callersOwn) {
    const HoldQueue hold(this, !callersOwn);
    WorkerPool::runCounted(entry.job);
  }

  // Hands a blocked waiter's busy count back. Under the mutex.
  static void wake(Waiter& waiter) {
    if (waiter.suspended != nullptr)
      WorkerPool::resumeWork(std::exchange(waiter.suspended, nullptr));
  }

  const std::string label;
  WorkerPool& pool;
  Clock& clock;

  std::mutex mutex;
  std::condition_variable changed;  // a sync() job ran, or the queue was released
  std::deque<Entry> jobs;           // guarded by mutex
  bool running = false;             // a thread is running the queue's jobs; guarded by mutex
  bool turnPosted = false;          // a turn is waiting in the pool; guarded by mutex
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
  // Held for the whole call: a job this caller runs may drop the queue's last owner.
  const std::shared_ptr<Impl> queue = impl_;
  Impl::Waiter waiter;
  std::unique_lock lock(queue->mutex);
  queue->jobs.push_back(Impl::Entry{[&job] { job(); }, std::nullopt, &waiter});
  // Either run the queue here, up to and including this job, or wait for the thread that is
  // running it to get there. The caller never waits for a free worker, so callers on the pool
  // cannot starve it. While blocked, it does not count as busy (the job it waits for does).
  while (!waiter.done) {
    if (!queue->running) {
      queue->runJobs(lock, &waiter, 0);
    } else {
      waiter.suspended = WorkerPool::currentCounted();
      WorkerPool::suspendWork(waiter.suspended);
      queue->changed.wait(lock, [&] { return waiter.done || !queue->running; });
      Impl::wake(waiter);
    }
  }
  return true;
}

bool SerialQueue::trySync(const Job& job) const {
  if (isCurrent()) return false;
  const std::shared_ptr<Impl> queue = impl_;
  Impl::Waiter waiter;
  std::unique_lock lock(queue->mutex);
  if (queue->running || !queue->jobs.empty()) return false;
  queue->jobs.push_back(Impl::Entry{[&job] { job(); }, std::nullopt, &waiter});
  queue->runJobs(lock, &waiter, 0);
  return true;
}

void SerialQueue::runOrAsync(Job job) const {
  if (!trySync(job)) async(std::move(job));
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

bool SerialQueue::isCurrent() const {
  for (const HeldQueue* held = tHeldQueues; held != nullptr; held = held->outer) {
    if (held->queue == impl_.get()) return true;
  }
  return false;
}

void SerialQueue::assertCurrent(const char* what) const {
  if (isCurrent()) return;
  std::fprintf(stderr, "%s must run on queue %s\n", what, impl_->label.c_str());
  OrvexLogForCategory(kOrvexLogGeneral).fault("%s must run on queue %s", what, impl_->label);
  flushLogs();
  std::abort();
}

}  // namespace orvex
