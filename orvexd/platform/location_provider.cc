// The position from GeoClue2 on the system bus.
//
// Each startUpdates() that finds no session running starts one: a thread of its own that
// connects to the system bus, asks the GeoClue manager for a client, names the daemon's desktop
// id, asks for the best accuracy, subscribes to the client's LocationUpdated and starts it, then
// runs the connection's event loop until told to stop. Everything that touches the connection
// happens on that thread; the provider only signals an eventfd to end the loop. On the way out
// the thread stops the GeoClue client.
//
// Every bus call has a time-out, so a silent GeoClue delays stopUpdates() and the destructor by
// at most that long (kCallTimeout, kStopTimeout).
#include "orvexd/platform/location_provider.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {

namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
// GClueAccuracyLevel: EXACT.
constexpr std::uint32_t kAccuracyLevelExact = 8;

constexpr auto kCallTimeout = 5s;
// GetClient may have to wait for the bus to start GeoClue.
constexpr auto kGetClientTimeout = 10s;
constexpr auto kStopTimeout = 2s;

const OrvexLog& locationLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

// The handler, shared by the provider and its sessions; guarded by its mutex.
struct HandlerSlot {
  std::mutex mutex;
  LocationProvider::UpdateHandler handler;

  LocationProvider::UpdateHandler get() {
    std::lock_guard lock(mutex);
    return handler;
  }
};

// Thrown inside a session's set-up when it is asked to stop half-way; never leaves the session.
struct StopRequested {};

std::string describeBusError(const sdbus::Error& error) {
  return error.getName() + ": " + error.getMessage();
}

// How a fix was obtained, judged from its accuracy (GeoClue does not say).
int fixType(double accuracy) {
  if (accuracy <= 100) return 1;   // satellite
  if (accuracy <= 2000) return 4;  // Wi-Fi
  return 6;                        // cell
}

template <typename T>
std::optional<T> propertyOf(const std::map<std::string, sdbus::Variant>& properties,
                            const std::string& name) {
  const auto found = properties.find(name);
  if (found == properties.end() || !found->second.containsValueOfType<T>()) return std::nullopt;
  return found->second.get<T>();
}

// A fix from the properties of a GeoClue Location object; nullopt (and a log line) when they
// are missing, mistyped or out of range.
std::optional<LocationFix> fixFromProperties(const std::map<std::string, sdbus::Variant>& props,
                                             const std::string& path) {
  const auto latitude = propertyOf<double>(props, "Latitude");
  const auto longitude = propertyOf<double>(props, "Longitude");
  const auto accuracy = propertyOf<double>(props, "Accuracy");
  const auto timestamp =
      propertyOf<sdbus::Struct<std::uint64_t, std::uint64_t>>(props, "Timestamp");
  if (!latitude || !longitude || !accuracy || !timestamp) {
    locationLog().error("location %@ lacks a latitude, longitude, accuracy or timestamp", path);
    return std::nullopt;
  }
  const std::uint64_t seconds = std::get<0>(*timestamp);
  const std::uint64_t microseconds = std::get<1>(*timestamp);
  if (!std::isfinite(*latitude) || std::fabs(*latitude) > 90 || !std::isfinite(*longitude) ||
      std::fabs(*longitude) > 180 || !std::isfinite(*accuracy) || *accuracy < 0 ||
      microseconds >= 1'000'000 || seconds > (std::uint64_t{1} << 40)) {
    locationLog().error("location %@ is out of range (%f, %f, accuracy %f, time %llu.%06llu)", path,
                        *latitude, *longitude, *accuracy, seconds, microseconds);
    return std::nullopt;
  }
  LocationFix fix;
  fix.latitude = *latitude;
  fix.longitude = *longitude;
  fix.horizontalAccuracy = *accuracy;
  fix.type = fixType(*accuracy);
  fix.timestamp = WallTime(std::chrono::duration_cast<WallTime::duration>(
      std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds)));
  return fix;
}

// One run of GeoClue updates, from start to stop. The thread owns the bus objects; `stopping`
// and the eventfd are how other threads reach it.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(std::string desktopId, std::shared_ptr<HandlerSlot> slot)
      : desktopId_(std::move(desktopId)),
        slot_(std::move(slot)),
        stopFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void start() {
    // The thread may call the handler, and the handler stop(), before the assignment is done:
    // the thread waits for it.
    std::lock_guard lock(threadMutex_);
    thread_ = std::thread([self = shared_from_this()] {
      { std::lock_guard started(self->threadMutex_); }
      self->run();
    });
  }

  // Ends the session: no handler call begins after this returns. Joins the thread, unless
  // called on it (from the handler), in which case the thread finishes on its own.
  void stop() {
    stopping_ = true;
    if (stopFd_.get() >= 0) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const auto written = ::write(stopFd_.get(), &one, sizeof one);
    }
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  void run() {
    try {
      setUp();
      deliver(LocationUpdate{true, currentFix()});
      runLoop();
    } catch (const StopRequested&) {
    } catch (const sdbus::Error& error) {
      locationLog().error("the location service is not available: %@", describeBusError(error));
      deliver(LocationUpdate{false, std::nullopt});
    } catch (const std::exception& error) {
      locationLog().error("the location service is not available: %s", error.what());
      deliver(LocationUpdate{false, std::nullopt});
    }
    tearDown();
  }

  void checkStopping() const {
    if (stopping_) throw StopRequested{};
  }

  void setUp() {
    if (stopFd_.get() < 0) {
      throw std::runtime_error("cannot create an eventfd: " +
                               std::error_code(errno, std::system_category()).message());
    }
    connection_ = sdbus::createSystemBusConnection();
    // Property reads and writes take the connection's time-out.
    connection_->setMethodCallTimeout(kCallTimeout);
    checkStopping();

    auto manager = sdbus::createProxy(*connection_, kService, kManagerPath);
    sdbus::ObjectPath clientPath;
    manager->callMethod("GetClient")
        .onInterface(kManagerInterface)
        .withTimeout(kGetClientTimeout)
        .storeResultsTo(clientPath);
    checkStopping();

    client_ = sdbus::createProxy(*connection_, kService, clientPath);
    client_->setProperty("DesktopId").onInterface(kClientInterface).toValue(desktopId_);
    client_->setProperty("RequestedAccuracyLevel")
        .onInterface(kClientInterface)
        .toValue(kAccuracyLevelExact);
    client_->uponSignal("LocationUpdated")
        .onInterface(kClientInterface)
        .call([this](const sdbus::ObjectPath&, const sdbus::ObjectPath& newPath) {
          onLocationUpdated(newPath);
        });
    client_->finishRegistration();
    checkStopping();

    client_->callMethod("Start").onInterface(kClientInterface).withTimeout(kCallTimeout);
    started_ = true;
    locationLog().info("location updates started (GeoClue client %@)", std::string(clientPath));
  }

  // The location the client already holds, if any.
  std::optional<LocationFix> currentFix() {
    try {
      const sdbus::Variant value = client_->getProperty("Location").onInterface(kClientInterface);
      if (!value.containsValueOfType<sdbus::ObjectPath>()) return std::nullopt;
      return readFix(value.get<sdbus::ObjectPath>());
    } catch (const sdbus::Error& error) {
      locationLog().error("cannot read the current location: %@", describeBusError(error));
      return std::nullopt;
    }
  }

  std::optional<LocationFix> readFix(const std::string& path) {
    if (path.empty() || path == "/") return std::nullopt;
    auto location = sdbus::createProxy(*connection_, kService, path);
    std::map<std::string, sdbus::Variant> properties;
    location->callMethod("GetAll")
        .onInterface(kPropertiesInterface)
        .withTimeout(kCallTimeout)
        .withArguments(std::string(kLocationInterface))
        .storeResultsTo(properties);
    return fixFromProperties(properties, path);
  }

  // Runs on the thread, inside processPendingRequest().
  void onLocationUpdated(const sdbus::ObjectPath& path) {
    try {
      if (auto fix = readFix(path)) deliver(LocationUpdate{true, fix});
    } catch (const sdbus::Error& error) {
      locationLog().error("cannot read location %@: %@", std::string(path),
                          describeBusError(error));
    } catch (const std::exception& error) {
      locationLog().error("cannot read location %@: %s", std::string(path), error.what());
    }
  }

  void runLoop() {
    while (!stopping_) {
      while (connection_->processPendingRequest()) {
        if (stopping_) return;
      }
      const auto pollData = connection_->getEventLoopPollData();
      pollfd fds[2] = {{pollData.fd, pollData.events, 0}, {stopFd_.get(), POLLIN, 0}};
      const int ready = ::poll(fds, 2, pollData.getPollTimeout());
      if (ready < 0 && errno != EINTR) {
        throw std::runtime_error("polling the system bus failed: " +
                                 std::error_code(errno, std::system_category()).message());
      }
      if (ready <= 0) continue;
      if ((fds[1].revents & POLLIN) != 0) return;
      if ((fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        // Let sd-bus see the closed connection (it throws), else give up on it here.
        while (connection_->processPendingRequest()) {
        }
        throw std::runtime_error("the system bus closed the connection");
      }
    }
  }

  void tearDown() {
    if (started_) {
      try {
        client_->callMethod("Stop").onInterface(kClientInterface).withTimeout(kStopTimeout);
      } catch (const sdbus::Error& error) {
        locationLog().info("stopping the GeoClue client failed: %@", describeBusError(error));
      }
    }
    client_.reset();
    connection_.reset();
  }

  void deliver(const LocationUpdate& update) {
    if (stopping_) return;
    const auto handler = slot_->get();
    if (!handler) return;
    runLoggingFailure(locationLog(), "the location update handler", [&] { handler(update); });
  }

  const std::string desktopId_;
  const std::shared_ptr<HandlerSlot> slot_;
  const UniqueFd stopFd_;
  std::atomic<bool> stopping_{false};
  std::mutex threadMutex_;  // held while start() sets thread_
  std::thread thread_;

  // The thread's own.
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> client_;
  bool started_ = false;
};

class GeoClueLocationProvider final : public LocationProvider {
 public:
  explicit GeoClueLocationProvider(std::string desktopId)
      : desktopId_(std::move(desktopId)), slot_(std::make_shared<HandlerSlot>()) {}

  ~GeoClueLocationProvider() override { stopUpdates(); }

  void startUpdates(UpdateHandler handler) override {
    std::lock_guard lock(mutex_);
    {
      std::lock_guard slotLock(slot_->mutex);
      slot_->handler = std::move(handler);
    }
    if (session_) return;
    session_ = std::make_shared<Session>(desktopId_, slot_);
    session_->start();
  }

  // The session is stopped outside the mutex, so that a handler running on the session's
  // thread may call startUpdates() meanwhile without deadlocking.
  void stopUpdates() override {
    std::shared_ptr<Session> session;
    {
      std::lock_guard lock(mutex_);
      session = std::move(session_);
    }
    if (session) session->stop();
  }

 private:
  const std::string desktopId_;
  const std::shared_ptr<HandlerSlot> slot_;
  std::mutex mutex_;  // serialises start and stop; guards session_
  std::shared_ptr<Session> session_;
};

}  // namespace

std::unique_ptr<LocationProvider> makeGeoClueLocationProvider(std::string desktopId) {
  return std::make_unique<GeoClueLocationProvider>(std::move(desktopId));
}

}  // namespace orvex
