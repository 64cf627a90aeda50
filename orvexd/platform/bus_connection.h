// The daemon's connection to the session bus (the bus DBUS_SESSION_BUS_ADDRESS names, or the
// one that activated the daemon).
//
// The D-Bus glue stays thin: objects register their members on connection(), and every member
// handler runs through runBusHandler() so that no failure escapes into sd-bus.
//
// The connection belongs to the thread that runs its event loop: sd-bus is not thread-safe, so
// everything that sends (signals, replies from other queues) is handed to that thread with
// post(), which wakes the loop through an eventfd.
#pragma once

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>
#include <sdbus-c++/MethodResult.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>

#include "orvexd/core/orvex_logging.h"
#include "orvexd/platform/unique_fd.h"

namespace sdbus {
class IConnection;
}

namespace orvex {

inline constexpr const char* kOrvexBusName = "com.zelmor.orvexd";
inline constexpr const char* kOrvexObjectPath = "/com/zelmor/orvexd";
inline constexpr const char* kOrvexFlusherPath = "/com/zelmor/orvexd/Flusher";
inline constexpr const char* kOrvexInternalError = "com.zelmor.orvexd.Error.Internal";

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
  // Dispatches bus messages and posted jobs on the calling thread until stop().
  void runEventLoop();
  // Ends runEventLoop() once the jobs posted before it have run. Callable from any thread.
  void stop();
  // Runs `job` on the event-loop thread, after the jobs posted before it. Callable from any
  // thread; jobs posted while no loop runs wait for one.
  void post(std::function<void()> job);
  // Runs `job` now when called on the event-loop thread, else as post() does.
  void run(std::function<void()> job);
  bool isLoopThread() const { return loopThread_.load() == std::this_thread::get_id(); }

 private:
  // Runs the jobs posted so far; false once stop() was called.
  bool runPostedJobs();

  std::unique_ptr<sdbus::IConnection> connection_;
  UniqueFd wakeup_;   // eventfd that post() and stop() signal
  std::mutex mutex_;  // guards jobs_ and stopping_
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::atomic<std::thread::id> loopThread_;  // set while runEventLoop() runs
};

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
    throw sdbus::Error(kOrvexInternalError, e.what());
  } catch (...) {
    OrvexLogForCategory(kOrvexLogConnection).fault("%@ failed", member);
    throw sdbus::Error(kOrvexInternalError, "internal error");
  }
}

// The reply to one asynchronous method call, which any thread may send. sd-bus messages belong
// to the bus thread (their reference counts are not atomic), so everything that touches the
// call happens there: the reply is built and sent there, from plain values, and the call itself
// is released there even when the last copy of the BusReply dies elsewhere. Copies share the
// call; only the first reply of all copies is sent, and a call whose replies are all dropped gets
// no reply at all (the daemon's way of ignoring a request).
template <typename... Results>
class BusReply {
 public:
  BusReply(BusConnection& bus, sdbus::Result<Results...>&& result)
      : state_(std::make_shared<State>(bus, std::move(result))) {}

  // `make` runs on the bus thread and returns the results as a std::tuple; whatever holds
  // sd-bus values (variants, file descriptors) must be made there.
  template <typename F>
  void sendFrom(F make) const {
    if (state_->replied.exchange(true)) return;
    state_->bus.run([state = state_, make = std::move(make)] {
      try {
        std::apply([&state](const auto&... args) { state->result.returnResults(args...); }, make());
      } catch (const sdbus::Error& e) {
        // The caller may have left the bus; that is logged, never thrown.
        OrvexLogForCategory(kOrvexLogConnection).error("cannot send reply: %@", e.getMessage());
      }
    });
  }
  // For results that hold no sd-bus values.
  void send(Results... results) const {
    sendFrom([values = std::make_tuple(std::move(results)...)] { return values; });
  }
  void fail(const std::string& name, const std::string& message) const {
    if (state_->replied.exchange(true)) return;
    state_->bus.run([state = state_, name, message] {
      try {
        state->result.returnError(sdbus::Error(name, message));
      } catch (const sdbus::Error& e) {
        OrvexLogForCategory(kOrvexLogConnection)
            .error("cannot send error reply: %@", e.getMessage());
      }
    });
  }

 private:
  struct State {
    State(BusConnection& b, sdbus::Result<Results...>&& r) : bus(b), result(std::move(r)) {}
    ~State() {
      if (bus.isLoopThread()) return;
      bus.post([call = std::make_shared<sdbus::Result<Results...>>(std::move(result))] {});
    }
    BusConnection& bus;
    sdbus::Result<Results...> result;
    std::atomic<bool> replied{false};
  };

  std::shared_ptr<State> state_;
};

// The same for a call whose reply is written by hand into the message (see BusReply): `write`
// runs on the bus thread with the reply message to fill.
class BusCall {
 public:
  BusCall(BusConnection& bus, sdbus::MethodCall call)
      : state_(std::make_shared<State>(bus, std::move(call))) {}

  template <typename F>
  void sendWith(F write) const {
    if (state_->replied.exchange(true)) return;
    state_->bus.run([state = state_, write = std::move(write)] {
      try {
        auto reply = state->call.createReply();
        write(reply);
        reply.send();
      } catch (const sdbus::Error& e) {
        OrvexLogForCategory(kOrvexLogConnection).error("cannot send reply: %@", e.getMessage());
      }
    });
  }
  void fail(const std::string& name, const std::string& message) const {
    if (state_->replied.exchange(true)) return;
    state_->bus.run([state = state_, name, message] {
      try {
        state->call.createErrorReply(sdbus::Error(name, message)).send();
      } catch (const sdbus::Error& e) {
        OrvexLogForCategory(kOrvexLogConnection)
            .error("cannot send error reply: %@", e.getMessage());
      }
    });
  }

 private:
  struct State {
    State(BusConnection& b, sdbus::MethodCall c) : bus(b), call(std::move(c)) {}
    ~State() {
      if (bus.isLoopThread()) return;
      bus.post([call = std::make_shared<sdbus::MethodCall>(std::move(call))] {});
    }
    BusConnection& bus;
    sdbus::MethodCall call;
    std::atomic<bool> replied{false};
  };
  std::shared_ptr<State> state_;
};

}  // namespace orvex
