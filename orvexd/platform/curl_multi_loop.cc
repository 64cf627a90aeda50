#include "orvexd/platform/curl_multi_loop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <limits>
#include <optional>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {

constexpr int kMaxEvents = 32;

const OrvexLog& loopLog() { return OrvexLogForCategory(kOrvexLogConnection); }

// The loop the current thread stands in for, in a job runOrPost() runs in its place.
thread_local const CurlMultiLoop* tStandIn = nullptr;

// Adds `fd` to the epoll set or changes what it waits for.
void watch(int epoll, int fd, uint32_t events, bool known) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (::epoll_ctl(epoll, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) == 0) return;
  // A descriptor libcurl closed and reopened under the same number is new to epoll, and one
  // another handle left behind may still be in the set.
  if (::epoll_ctl(epoll, known ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0) {
    loopLog().error("cannot wait for descriptor %d: errno %d", fd, errno);
  }
}

}  // namespace

struct CurlMultiLoop::Driven {
  CurlMultiLoop* loop;
  CURLM* multi;
  std::function<void()> afterAction;
  // When libcurl wants its timer run; nothing while it has none.
  std::optional<TimePoint> due;
};

CurlMultiLoop::CurlMultiLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wakeTimer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!epoll_ || !wake_ || !wakeTimer_) {
    loopLog().fault("cannot make the network thread's wait: errno %d", errno);
  } else {
    watch(epoll_.get(), wake_.get(), EPOLLIN, false);
    watch(epoll_.get(), wakeTimer_.get(), EPOLLIN, false);
  }
  thread_ = std::thread([this] { run(); });
  pthread_setname_np(thread_.native_handle(), "orvex-http");
}

CurlMultiLoop::~CurlMultiLoop() {
  if (thread_.get_id() == std::this_thread::get_id()) {
    std::fputs("the network thread cannot end itself\n", stderr);
    std::abort();
  }
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  ring();
  thread_.join();
}

std::shared_ptr<CurlMultiLoop> CurlMultiLoop::shared() {
  static std::mutex mutex;
  static std::weak_ptr<CurlMultiLoop> current;
  std::lock_guard lock(mutex);
  if (auto loop = current.lock()) return loop;
  auto loop = std::make_shared<CurlMultiLoop>();
  current = loop;
  return loop;
}

void CurlMultiLoop::post(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    if (jobs_.size() > 1) return;  // the first one rang already
  }
  ring();
}

void CurlMultiLoop::ring() {
  const uint64_t one = 1;
  (void)!::write(wake_.get(), &one, sizeof one);
}

bool CurlMultiLoop::standingIn() const { return tStandIn == this; }

void CurlMultiLoop::runOrPost(std::function<void()> job) {
  if (onNetworkThread() || standingIn() || !runInPlace(job)) post(std::move(job));
}

bool CurlMultiLoop::runInPlace(const std::function<void()>& job) {
  std::unique_lock hold(loopMutex_, std::try_to_lock);
  if (!hold.owns_lock() || !waiting_) return false;
  {
    // Jobs posted before this one run first, on the network thread.
    std::lock_guard lock(mutex_);
    if (stopping_ || !jobs_.empty()) return false;
  }
  {
    struct StandIn {
      explicit StandIn(const CurlMultiLoop* loop) { tStandIn = loop; }
      ~StandIn() { tStandIn = nullptr; }
      StandIn(const StandIn&) = delete;
      StandIn& operator=(const StandIn&) = delete;
    } standIn(this);
    job();
    runDueTimers(std::chrono::steady_clock::now());
  }
  // The network thread sleeps until waitingUntil_: an earlier deadline goes to the timer.
  const std::optional<TimePoint> earliest = earliestDeadline();
  if (earliest && (!waitingUntil_ || *earliest < *waitingUntil_)) {
    setWakeTimer(earliest);
    waitingUntil_ = earliest;
  }
  return true;
}

void CurlMultiLoop::setWakeTimer(std::optional<TimePoint> deadline) {
  itimerspec spec{};
  if (deadline) {
    const auto sinceBoot = deadline->time_since_epoch();  // steady_clock is CLOCK_MONOTONIC
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceBoot);
    spec.it_value.tv_sec = static_cast<time_t>(seconds.count());
    spec.it_value.tv_nsec = static_cast<long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceBoot - seconds).count());
    // A zero time disarms: a deadline at the clock's very start is made the next nanosecond.
    if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) spec.it_value.tv_nsec = 1;
  }
  if (::timerfd_settime(wakeTimer_.get(), TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
    loopLog().error("cannot set the network thread's timer: errno %d", errno);
    ring();  // wakes it to look for itself
    return;
  }
  wakeTimerArmed_ = deadline.has_value();
}

void CurlMultiLoop::runAndWait(const std::function<void()>& job) {
  if (onNetworkThread() || standingIn()) {
    job();
    return;
  }
  std::promise<void> done;
  post([&] {
    job();
    done.set_value();
  });
  done.get_future().wait();
}

CurlMultiLoop::Driven* CurlMultiLoop::attach(CURLM* multi, std::function<void()> afterAction) {
  auto driven = std::make_unique<Driven>(Driven{this, multi, std::move(afterAction), std::nullopt});
  Driven* raw = driven.get();
  curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &CurlMultiLoop::onSocket);
  curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, raw);
  curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &CurlMultiLoop::onTimer);
  curl_multi_setopt(multi, CURLMOPT_TIMERDATA, raw);
  driven_.push_back(std::move(driven));
  return raw;
}

void CurlMultiLoop::detach(Driven* driven) {
  if (driven == nullptr) return;
  for (auto it = owners_.begin(); it != owners_.end();) {
    if (it->second != driven) {
      ++it;
      continue;
    }
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, it->first, nullptr);
    it = owners_.erase(it);
  }
  std::erase_if(driven_, [driven](const auto& entry) { return entry.get() == driven; });
}

void CurlMultiLoop::run() {
  epoll_event events[kMaxEvents];
  std::unique_lock hold(loopMutex_);
  for (;;) {
    // Awake, the thread keeps every deadline itself.
    if (wakeTimerArmed_) setWakeTimer(std::nullopt);
    waitingUntil_ = earliestDeadline();
    waiting_ = true;
    const int timeout = waitMilliseconds(waitingUntil_, std::chrono::steady_clock::now());
    hold.unlock();
    const int ready = ::epoll_wait(epoll_.get(), events, kMaxEvents, timeout);
    hold.lock();
    waiting_ = false;
    if (ready < 0 && errno != EINTR) {
      loopLog().fault("the network thread's wait failed: errno %d", errno);
      return;
    }
    for (int i = 0; i < ready; ++i) {
      const int fd = events[i].data.fd;
      if (fd == wake_.get()) {
        uint64_t count = 0;
        (void)!::read(fd, &count, sizeof count);
        {
          std::lock_guard lock(mutex_);
          if (stopping_) return;
        }
        runJobs();
        continue;
      }
      if (fd == wakeTimer_.get()) {
        uint64_t expirations = 0;
        (void)!::read(fd, &expirations, sizeof expirations);
        wakeTimerArmed_ = false;
        continue;  // the due timers run below
      }
      // Looked up afresh: an action before may have closed the descriptor or detached its owner.
      auto owner = owners_.find(fd);
      if (owner == owners_.end()) continue;
      const uint32_t what = events[i].events;
      int flags = 0;
      if (what & (EPOLLIN | EPOLLHUP)) flags |= CURL_CSELECT_IN;
      if (what & EPOLLOUT) flags |= CURL_CSELECT_OUT;
      if (what & EPOLLERR) flags |= CURL_CSELECT_ERR;
      act(*owner->second, fd, flags);
    }
    runDueTimers(std::chrono::steady_clock::now());
  }
}

std::optional<CurlMultiLoop::TimePoint> CurlMultiLoop::earliestDeadline() const {
  std::optional<TimePoint> earliest;
  for (const auto& driven : driven_) {
    if (driven->due && (!earliest || *driven->due < *earliest)) earliest = driven->due;
  }
  return earliest;
}

int CurlMultiLoop::waitMilliseconds(std::optional<TimePoint> deadline, TimePoint now) {
  if (!deadline) return -1;
  if (*deadline <= now) return 0;
  // Rounded up, so that the wait never ends just before the deadline and spins once more.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
  return static_cast<int>(std::min<int64_t>(left, std::numeric_limits<int>::max()));
}

void CurlMultiLoop::runDueTimers(TimePoint now) {
  // By index and checked again: an action may attach or detach a handle.
  for (size_t i = 0; i < driven_.size(); ++i) {
    Driven& driven = *driven_[i];
    if (!driven.due || *driven.due > now) continue;
    driven.due.reset();  // libcurl sets the next one from the action, if it wants one
    act(driven, CURL_SOCKET_TIMEOUT, 0);
  }
}

void CurlMultiLoop::runJobs() {
  std::vector<std::function<void()>> jobs;
  {
    std::lock_guard lock(mutex_);
    jobs.swap(jobs_);
  }
  for (auto& job : jobs) job();
}

void CurlMultiLoop::act(Driven& driven, curl_socket_t socket, int flags) {
  int running = 0;
  const CURLMcode result = curl_multi_socket_action(driven.multi, socket, flags, &running);
  if (result != CURLM_OK) {
    loopLog().error("curl_multi_socket_action failed: %@", curl_multi_strerror(result));
  }
  driven.afterAction();
}

int CurlMultiLoop::onSocket(CURL*, curl_socket_t socket, int what, void* data, void*) {
  auto* driven = static_cast<Driven*>(data);
  CurlMultiLoop& loop = *driven->loop;
  if (what == CURL_POLL_REMOVE) {
    ::epoll_ctl(loop.epoll_.get(), EPOLL_CTL_DEL, socket, nullptr);
    loop.owners_.erase(socket);
    return 0;
  }
  uint32_t events = 0;
  if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) events |= EPOLLIN;
  if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) events |= EPOLLOUT;
  const bool added = loop.owners_.insert_or_assign(socket, driven).second;
  watch(loop.epoll_.get(), socket, events, !added);
  return 0;
}

// libcurl asks to be called back after `timeoutMs` (at once for 0), or not at all (-1). The loop
// acts on it after the sockets that are ready now, never from inside this callback.
int CurlMultiLoop::onTimer(CURLM*, long timeoutMs, void* data) {
  auto* driven = static_cast<Driven*>(data);
  if (timeoutMs < 0) {
    driven->due.reset();
  } else {
    driven->due = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  }
  return 0;
}

}  // namespace orvex
