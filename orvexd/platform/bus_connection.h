// The daemon's connection to the session bus (the bus DBUS_SESSION_BUS_ADDRESS names, or the
// one that activated the daemon).
//
// The D-Bus glue stays thin: objects register their members on connection(), and every member
// handler runs through runBusHandler() so that no failure escapes into sd-bus.
//
// The connection belongs to the thread that runs its event loop: sd-bus is not thread-safe, so
// everything that sends (signals, replies from other queues) is handed to that thread with
// post(), which wakes the loop through an eventfd. The loop holds `loopMutex_` except while it
// waits in poll(); run() from another thread takes it then and sends in the loop's place, which
// spares the loop a wake-up on the way of every reply.
#pragma once

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>
#include <sdbus-c++/MethodResult.h>
#include <sdbus-c++/Types.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace orvex {

class BusConnection {
 public:
  // Connects to the session bus. When the bus started the daemon by activation
  // (DBUS_STARTER_BUS_TYPE=session), its DBUS_STARTER_ADDRESS wins.
  static std::unique_ptr<BusConnection> connectToSessionBus(std::string* error);
  explicit BusConnection(std::unique_ptr<sdbus::IConnection> connection);
  ~BusConnection();

  sdbus::IConnection& connection();
  // Owns `name`; fails (with the reason) when another connection owns it.
  bool requestName(const std::string& name, std::string* error);
  // Dispatches bus messages and posted jobs on the calling thread until stop() (true) or until
  // the connection to the bus is lost (false, logged at fault level). A posted job that throws
  // is logged and the loop goes on.
  bool runEventLoop();
  // Ends runEventLoop() once the jobs posted before it have run. Callable from any thread.
  void stop();
  // Runs `job` on the event-loop thread, after the jobs posted before it. Callable from any
  // thread; jobs posted while no loop runs wait for one.
  void post(std::function<void()> job);
  // Runs `job` now when called on the event-loop thread. From another thread, runs it now in the
  // loop's place while the loop waits for the bus with no job queued, else as post() does.
  void run(std::function<void()> job);
  // True on the event-loop thread, and in a job run() runs in its place.
  bool isLoopThread() const;

 private:
  // Runs the jobs posted so far; false once stop() was called.
  bool runPostedJobs();
  // Runs `job` on the calling thread if the loop waits with nothing queued; false otherwise.
  bool runInPlaceOfLoop(const std::function<void()>& job);
  // Wakes the loop.
  void ring();

  std::unique_ptr<sdbus::IConnection> connection_;
  UniqueFd wakeup_;   // eventfd that post() and stop() signal
  std::mutex mutex_;  // guards jobs_ and stopping_
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::atomic<std::thread::id> loopThread_;  // set while runEventLoop() runs
  // Held by runEventLoop() except while it waits in poll(), and by a job run in its place; it
  // guards the connection and the fields below.
  std::mutex loopMutex_;
  bool waiting_ = false;  // the loop is in poll()
  // What the waiting loop polls for: the bus's events and deadline (UINT64_MAX: none).
  short waitingEvents_ = 0;
  uint64_t waitingTimeout_ = 0;
};

// Calls `gone` on the bus thread with the unique name (":1.42") of every connection that leaves
// the bus, as NameOwnerChanged reports it. The watch lasts as long as the returned proxy.
std::unique_ptr<sdbus::IProxy> watchConnectionsLeaving(
    BusConnection& bus, std::function<void(const std::string& uniqueName)> gone);

// Ends the call `member` with com.zelmor.orvexd.Error.AccessDenied (and an error log) unless its
// sender runs under the daemon's own effective user id, as the bus reports it (the credentials
// it took when the sender connected). For members that act on the whole daemon.
void requireCallerOfOwnUser(const sdbus::Message& call, std::string_view member);

// Runs a member handler. An sdbus::Error passes through as the reply's error; any other
// exception becomes com.zelmor.orvexd.Error.Internal and a fault in the log.
template <typename F>
auto runBusHandler(std::string_view member, F&& handler) -> decltype(handler()) {
  try {
    return handler();
  } catch (const sdbus::Error&) {
    throw;
  } catch (const std::exception& e) {
    OrvexLogForCategory(kOrvexLogConnection).fault("%@ failed: %s", member, e.what());
    throw sdbus::Error(kOrvexErrorInternal, e.what());
  } catch (...) {
    OrvexLogForCategory(kOrvexLogConnection).fault("%@ failed", member);
    throw sdbus::Error(kOrvexErrorInternal, "internal error");
  }
}

// The bus carries no message over 128 MiB and no array over 64 MiB, and drops a connection that
// sends one. Replies are kept well under both: one estimated above this is refused with
// com.zelmor.orvexd.Error.LimitsExceeded instead.
inline constexpr size_t kMaxReplyBytes = size_t{32} << 20;

namespace detail {

// What a value takes on the wire, near enough to keep replies under kMaxReplyBytes: strings and
// containers by their contents, anything else as a small fixed amount.
template <typename T>
size_t wireSize(const T&) {
  return 8;
}
inline size_t wireSize(const std::string& text) { return text.size() + 5; }
inline size_t wireSize(const sdbus::Variant& value) {
  return value.containsValueOfType<std::string>() ? wireSize(value.get<std::string>()) : 16;
}
template <typename T>
size_t wireSize(const std::vector<T>& values);
template <typename K, typename V>
size_t wireSize(const std::map<K, V>& values);
template <typename... T>
size_t wireSize(const std::tuple<T...>& values) {
  return std::apply([](const auto&... each) { return (size_t{0} + ... + wireSize(each)); }, values);
}
template <typename T>
size_t wireSize(const std::vector<T>& values) {
  size_t size = 4;
  for (const auto& value : values) size += wireSize(value);
  return size;
}
template <typename K, typename V>
size_t wireSize(const std::map<K, V>& values) {
  size_t size = 4;
  for (const auto& [key, value] : values) size += 8 + wireSize(key) + wireSize(value);
  return size;
}

// A call waiting for its reply, shared by the copies of its BusReply or BusCall. sd-bus messages
// belong to the bus thread (their reference counts are not atomic): the reply is made there, and
// the call is released there even when the last copy dies elsewhere. A call that was answered
// is released as its reply goes out, so that its last copy need not wake the bus thread again.
template <typename Held>
struct PendingCall {
  PendingCall(BusConnection& b, Held h) : bus(b), held(std::move(h)) {}
  ~PendingCall() {
    // `released` is written by the reply job on the bus thread, which held a copy of the call:
    // dropping that copy orders the write before this destructor.
    if (released || bus.isLoopThread()) return;
    bus.post([h = std::make_shared<Held>(std::move(held))] {});
  }
  // Runs `reply(held)` on the bus thread for the first caller of all; later calls do nothing.
  // The caller may have left the bus meanwhile: that is logged, never thrown.
  template <typename F>
  static void replyOnce(const std::shared_ptr<PendingCall>& call, F reply) {
    if (call->replied.exchange(true)) return;
    call->bus.run([call, reply = std::move(reply)] {
      try {
        reply(call->held);
      } catch (const sdbus::Error& e) {
        OrvexLogForCategory(kOrvexLogConnection).error("cannot send reply: %@", e.getMessage());
      }
      call->held = Held();
      call->released = true;
    });
  }

  BusConnection& bus;
  Held held;
  std::atomic<bool> replied{false};
  bool released = false;  // `held` was let go on the bus thread
};

}  // namespace detail

// The reply to one asynchronous method call, which any thread may send: it is built and sent on
// the bus thread, from plain values. Copies share the call; only the first reply of all copies
// is sent, and a call whose replies are all dropped gets no reply at all (the daemon's way of
// ignoring a request).
template <typename... Results>
class BusReply {
 public:
  BusReply(BusConnection& bus, sdbus::Result<Results...>&& result)
      : call_(std::make_shared<Call>(bus, std::move(result))) {}

  // `make` runs on the bus thread and returns the results as a std::tuple; whatever holds
  // sd-bus values (variants, file descriptors) must be made there.
  template <typename F>
  void sendFrom(F make) const {
    Call::replyOnce(call_, [make = std::move(make)](sdbus::Result<Results...>& result) {
      const auto values = make();
      if (const size_t size = detail::wireSize(values); size > kMaxReplyBytes) {
        OrvexLogForCategory(kOrvexLogConnection)
            .error("reply of %lu bytes refused, more than %lu", static_cast<unsigned long>(size),
                   static_cast<unsigned long>(kMaxReplyBytes));
        result.returnError(sdbus::Error(
            kOrvexErrorLimitsExceeded,
            "the reply would be " + std::to_string(size) + " bytes, more than the bus carries"));
        return;
      }
      std::apply([&result](const auto&... args) { result.returnResults(args...); }, values);
    });
  }
  // For results that hold no sd-bus values.
  void send(Results... results) const {
    sendFrom([values = std::make_tuple(std::move(results)...)] { return values; });
  }
  void fail(const std::string& name, const std::string& message) const {
    Call::replyOnce(call_, [name, message](sdbus::Result<Results...>& result) {
      result.returnError(sdbus::Error(name, message));
    });
  }

 private:
  using Call = detail::PendingCall<sdbus::Result<Results...>>;
  std::shared_ptr<Call> call_;
};

// The same for a call whose reply is written by hand into the message: `write` runs on the bus
// thread with the reply message to fill.
class BusCall {
 public:
  BusCall(BusConnection& bus, sdbus::MethodCall call)
      : call_(std::make_shared<Call>(bus, std::move(call))) {}

  template <typename F>
  void sendWith(F write) const {
    Call::replyOnce(call_, [write = std::move(write)](sdbus::MethodCall& call) {
      auto reply = call.createReply();
      write(reply);
      reply.send();
    });
  }
  void fail(const std::string& name, const std::string& message) const {
    Call::replyOnce(call_, [name, message](sdbus::MethodCall& call) {
      call.createErrorReply(sdbus::Error(name, message)).send();
    });
  }

 private:
  using Call = detail::PendingCall<sdbus::MethodCall>;
  std::shared_ptr<Call> call_;
};

}  // namespace orvex
