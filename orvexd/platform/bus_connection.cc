#include "orvexd/platform/bus_connection.h"

#include <poll.h>
#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <system_error>

namespace orvex {

namespace {

uint64_t monotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// poll()'s time-out for sd-bus's absolute deadline (UINT64_MAX: none).
int pollTimeout(uint64_t deadlineMicroseconds) {
  if (deadlineMicroseconds == UINT64_MAX) return -1;
  const uint64_t now = monotonicMicroseconds();
  if (deadlineMicroseconds <= now) return 0;
  const uint64_t milliseconds = (deadlineMicroseconds - now + 999) / 1000;
  return milliseconds > INT32_MAX ? INT32_MAX : static_cast<int>(milliseconds);
}

const OrvexLog& busLog() { return OrvexLogForCategory(kOrvexLogConnection); }

// The connection whose loop the current thread stands in for, in a job run() runs in its place.
thread_local const BusConnection* tStandIn = nullptr;

// A job that fails (a reply the bus refuses, say) fails alone: the loop serves the others.
void runBusJob(const std::function<void()>& job) {
  try {
    job();
  } catch (const sdbus::Error& e) {
    busLog().error("a bus job failed: %@: %@", e.getName(), e.getMessage());
  } catch (const std::exception& e) {
    busLog().fault("a bus job failed: %s", e.what());
  } catch (...) {
    busLog().fault("a bus job failed");
  }
}

}  // namespace

BusConnection::BusConnection(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)), wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeup_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

BusConnection::~BusConnection() = default;

std::unique_ptr<BusConnection> BusConnection::connectToSessionBus(std::string* error) {
  try {
    const char* starterType = std::getenv("DBUS_STARTER_BUS_TYPE");
    const char* starterAddress = std::getenv("DBUS_STARTER_ADDRESS");
    std::unique_ptr<sdbus::IConnection> connection;
    if (starterType != nullptr && std::string_view(starterType) == "session" &&
        starterAddress != nullptr && *starterAddress != '\0') {
      connection = sdbus::createSessionBusConnectionWithAddress(starterAddress);
    } else {
      connection = sdbus::createSessionBusConnection();
    }
    return std::make_unique<BusConnection>(std::move(connection));
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return nullptr;
  } catch (const std::system_error& e) {
    if (error != nullptr) *error = e.what();
    return nullptr;
  }
}

sdbus::IConnection& BusConnection::connection() { return *connection_; }

bool BusConnection::requestName(const std::string& name, std::string* error) {
  try {
    connection_->requestName(name);
    return true;
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return false;
  }
}

bool BusConnection::isLoopThread() const {
  return tStandIn == this || loopThread_.load() == std::this_thread::get_id();
}

void BusConnection::ring() {
  const uint64_t one = 1;
  (void)!::write(wakeup_.get(), &one, sizeof one);
}

void BusConnection::post(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  ring();
}

void BusConnection::run(std::function<void()> job) {
  if (isLoopThread()) {
    job();
  } else if (!runInPlaceOfLoop(job)) {
    post(std::move(job));
  }
}

bool BusConnection::runInPlaceOfLoop(const std::function<void()>& job) {
  std::unique_lock hold(loopMutex_, std::try_to_lock);
  if (!hold.owns_lock() || !waiting_) return false;
  {
    // Jobs posted before this one run first, on the loop.
    std::lock_guard lock(mutex_);
    if (stopping_ || !jobs_.empty()) return false;
  }
  tStandIn = this;
  runBusJob(job);  // throws nothing
  tStandIn = nullptr;
  // The loop waits for what the bus wanted before the job: ring it when the bus now wants more,
  // such as room for a message that did not fit, or an earlier deadline.
  try {
    const sdbus::IConnection::PollData bus = connection_->getEventLoopPollData();
    if ((bus.events & ~waitingEvents_) != 0 || bus.timeout_usec < waitingTimeout_) ring();
  } catch (const sdbus::Error&) {
    ring();  // the loop finds out what is wrong
  }
  return true;
}

void BusConnection::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  ring();
}

bool BusConnection::runPostedJobs() {
  uint64_t count = 0;
  (void)!::read(wakeup_.get(), &count, sizeof count);
  std::deque<std::function<void()>> jobs;
  bool stopping = false;
  {
    std::lock_guard lock(mutex_);
    jobs.swap(jobs_);
    stopping = stopping_;
  }
  for (auto& job : jobs) runBusJob(job);
  return !stopping;
}

bool BusConnection::runEventLoop() {
  std::unique_lock hold(loopMutex_);
  loopThread_.store(std::this_thread::get_id());
  try {
    for (;;) {
      while (connection_->processPendingRequest()) {
      }
      if (!runPostedJobs()) {
        loopThread_.store(std::thread::id());
        return true;
      }
      // A posted job may have queued messages or left requests to process: look again before
      // sleeping, with the bus's current wishes.
      if (connection_->processPendingRequest()) continue;
      const sdbus::IConnection::PollData bus = connection_->getEventLoopPollData();
      pollfd fds[2] = {{bus.fd, bus.events, 0}, {wakeup_.get(), POLLIN, 0}};
      waiting_ = true;
      waitingEvents_ = bus.events;
      waitingTimeout_ = bus.timeout_usec;
      hold.unlock();
      const int ready = ::poll(fds, 2, pollTimeout(bus.timeout_usec));
      hold.lock();
      waiting_ = false;
      if (ready < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll on the session bus");
      }
      if (ready > 0 && (fds[0].revents & (POLLHUP | POLLERR)) != 0) {
        // Let sd-bus see the hang-up and say why.
        (void)connection_->processPendingRequest();
        throw std::system_error(ECONNRESET, std::generic_category(), "the bus hung up");
      }
    }
  } catch (const sdbus::Error& e) {
    busLog().fault("lost the session bus connection: %@: %@", e.getName(), e.getMessage());
  } catch (const std::exception& e) {
    busLog().fault("lost the session bus connection: %s", e.what());
  }
  loopThread_.store(std::thread::id());
  return false;
}

std::unique_ptr<sdbus::IProxy> watchConnectionsLeaving(
    BusConnection& bus, std::function<void(const std::string& uniqueName)> gone) {
  auto driver =
      sdbus::createProxy(bus.connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus");
  driver->uponSignal("NameOwnerChanged")
      .onInterface("org.freedesktop.DBus")
      .call([gone = std::move(gone)](const std::string& name, const std::string&,
                                     const std::string& newOwner) {
        if (newOwner.empty() && name.starts_with(':')) gone(name);
      });
  driver->finishRegistration();
  return driver;
}

void requireCallerOfOwnUser(const sdbus::Message& call, std::string_view member) {
  std::optional<uid_t> uid;
  try {
    uid = call.getCredsEuid();
  } catch (const sdbus::Error& e) {
    busLog().error("cannot read the user of %@: %@", call.getSender(), e.getMessage());
  }
  if (uid && *uid == ::geteuid()) return;
  busLog().error("%@ refused to %@ (uid %@): not the daemon's user", member, call.getSender(),
                 uid ? std::to_string(*uid) : std::string("unknown"));
  throw sdbus::Error(kOrvexErrorAccessDenied,
                     std::string(member).append(" is only for processes of the daemon's user"));
}

}  // namespace orvex
