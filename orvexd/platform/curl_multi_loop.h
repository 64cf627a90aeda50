// The one network thread of the process: it drives the libcurl multi handles of every
// HttpSession through curl_multi_socket_action, waiting in epoll on their sockets and on an
// eventfd that posted jobs ring. libcurl's timer is kept as a deadline per multi handle, and the
// wait lasts until the earliest one, so an idle loop sleeps until a socket is ready, a libcurl
// timer is due or a job arrives, and a timer libcurl wants run at once costs no system call.
//
// Threads: post() and runAndWait() may be called from any thread; `mutex_` guards jobs_ and
// stopping_. Everything else (the epoll set, the driven handles and their deadlines, the socket
// map) belongs to the network thread, as do attach() and detach() and every callback into a
// driven handle.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
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
  // The same, and returns once it has run (at once when called on the network thread).
  void runAndWait(const std::function<void()>& job);

  // --- network thread ---
  // Drives `multi` from now on, calling `afterAction` after each time libcurl acted on it, to
  // collect the transfers that ended.
  Driven* attach(CURLM* multi, std::function<void()> afterAction);
  // Stops driving a handle, after it was cleaned up (cleaning up still calls its callbacks).
  void detach(Driven* driven);

 private:
  void run();
  void runJobs();
  // Milliseconds until the earliest libcurl deadline, rounded up; -1 when none is set.
  int waitMilliseconds(std::chrono::steady_clock::time_point now) const;
  // Acts on every handle whose deadline has come.
  void runDueTimers(std::chrono::steady_clock::time_point now);
  void act(Driven& driven, curl_socket_t socket, int flags);
  static int onSocket(CURL* easy, curl_socket_t socket, int what, void* driven, void* unused);
  static int onTimer(CURLM* multi, long timeoutMs, void* driven);

  UniqueFd epoll_;
  UniqueFd wake_;  // eventfd

  std::mutex mutex_;
  std::vector<std::function<void()>> jobs_;
  bool stopping_ = false;

  std::vector<std::unique_ptr<Driven>> driven_;
  // Every descriptor in the epoll set but the eventfd: libcurl's sockets.
  std::unordered_map<int, Driven*> owners_;
  std::thread thread_;
};

}  // namespace orvex
