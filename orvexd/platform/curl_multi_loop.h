// The one network thread of the process: it drives the libcurl multi handles of every
// HttpSession through curl_multi_socket_action, waiting in epoll on their sockets and on an
// eventfd that posted jobs ring. libcurl's timer is kept as a deadline per multi handle, and the
// wait lasts until the earliest one, so an idle loop sleeps until a socket is ready, a libcurl
// timer is due or a job arrives, and a timer libcurl wants run at once costs no system call.
//
// The network thread holds `loopMutex_` except while it waits in epoll. runOrPost() from another
// thread takes it then and does the job in the thread's place: a search starts its transfer and
// sends the request on the thread that asked for it, without waking the network thread, which
// later wakes for the answer. A deadline set meanwhile that comes before the one the network
// thread waits for is handed to a timerfd, which wakes it in time.
//
// Threads: post(), runOrPost() and runAndWait() may be called from any thread; `mutex_` guards
// jobs_ and stopping_. Everything else (the epoll set, the driven handles and their deadlines, the
// socket map) is guarded by `loopMutex_`: it belongs to the network thread and to a job run in
// its place, as do attach() and detach() and every callback into a driven handle.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "orvexd/base/unique_fd.h"

namespace orvex {

class CurlMultiLoop {
 public:
  // A multi handle the loop drives.
  struct Driven;

  CurlMultiLoop();
  // Ends and joins the thread; jobs still queued are dropped. Must not run on the thread itself
  // (no job owns the loop).
  ~CurlMultiLoop();
  CurlMultiLoop(const CurlMultiLoop&) = delete;
  CurlMultiLoop& operator=(const CurlMultiLoop&) = delete;

  // The loop every session shares: made with its thread when the first session asks, ended when
  // the last one lets go.
  static std::shared_ptr<CurlMultiLoop> shared();

  // Runs `job` on the network thread, after the jobs posted before it.
  void post(std::function<void()> job);
  // Runs `job` now on the calling thread in the network thread's place, and then whatever libcurl
  // timers are due, while the network thread waits with no job queued; else posts it (always
  // from the network thread itself, or from a job run in its place). For short jobs only.
  void runOrPost(std::function<void()> job);
  // The same as post(), and returns once it has run (at once on the network thread or in a job
  // run in its place).
  void runAndWait(const std::function<void()>& job);
  // True on the network thread itself, not in a job run in its place.
  bool onNetworkThread() const { return thread_.get_id() == std::this_thread::get_id(); }

  // --- network thread, or a job run in its place ---
  // Drives `multi` from now on, calling `afterAction` after each time libcurl acted on it, to
  // collect the transfers that ended.
  Driven* attach(CURLM* multi, std::function<void()> afterAction);
  // Stops driving a handle, after it was cleaned up (cleaning up still calls its callbacks).
  void detach(Driven* driven);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  void run();
  void runJobs();
  bool runInPlace(const std::function<void()>& job);
  bool standingIn() const;
  // The earliest libcurl deadline of all the driven handles.
  std::optional<TimePoint> earliestDeadline() const;
  // Milliseconds from `now` until `deadline`, rounded up; -1 without one.
  static int waitMilliseconds(std::optional<TimePoint> deadline, TimePoint now);
  // Wakes the network thread.
  void ring();
  // Arms the timerfd for `deadline`, or disarms it (nullopt).
  void setWakeTimer(std::optional<TimePoint> deadline);
  // Acts on every handle whose deadline has come.
  void runDueTimers(TimePoint now);
  void act(Driven& driven, curl_socket_t socket, int flags);
  static int onSocket(CURL* easy, curl_socket_t socket, int what, void* driven, void* unused);
  static int onTimer(CURLM* multi, long timeoutMs, void* driven);

  UniqueFd epoll_;
  UniqueFd wake_;       // eventfd
  UniqueFd wakeTimer_;  // timerfd, for a deadline set in the network thread's place

  std::mutex mutex_;
  std::vector<std::function<void()>> jobs_;
  bool stopping_ = false;

  std::mutex loopMutex_;
  bool waiting_ = false;                   // the network thread is in epoll_wait
  std::optional<TimePoint> waitingUntil_;  // when its wait ends; nothing: only on an event
  bool wakeTimerArmed_ = false;

  std::vector<std::unique_ptr<Driven>> driven_;
  // Every descriptor in the epoll set but the eventfd and the timerfd: libcurl's sockets.
  std::unordered_map<int, Driven*> owners_;
  std::thread thread_;
};

}  // namespace orvex
