#include "tests/support/fake_geoclue.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "tests/support/private_bus.h"

namespace orvex::testing {

namespace {
constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kRoot = "/org/freedesktop/GeoClue2";
}  // namespace

// The connection and the objects are under `busMutex`: the thread serves the bus holding it
// and polls without it; publishLocation() takes it, then wakes the thread through the eventfd
// to send what it queued. `state` is under `mutex`.
struct FakeGeoClue::Impl {
  struct Client {
    std::unique_ptr<sdbus::IObject> object;
    bool active = false;
  };

  Options options;
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> manager;
  std::vector<std::unique_ptr<Client>> clients;
  std::vector<std::unique_ptr<sdbus::IObject>> locations;
  sdbus::ObjectPath currentLocation{"/"};

  std::mutex busMutex;
  int wakeFd = -1;
  std::atomic<bool> stopping{false};
  std::thread thread;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  State state;

  template <typename F>
  void update(F&& change) {
    std::lock_guard lock(mutex);
    change(state);
    changed.notify_all();
  }

  sdbus::ObjectPath createClient() {
    const int index = static_cast<int>(clients.size());
    const sdbus::ObjectPath path(std::string(kRoot) + "/Client/" + std::to_string(index + 1));
    auto client = std::make_unique<Client>();
    Client* raw = client.get();
    client->object = sdbus::createObject(*connection, path);
    auto& object = *client->object;
    object.registerMethod("Start").onInterface(kClientInterface).implementedAs([this, raw] {
      if (options.denyStart) {
        throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied",
                           "the agent refused the application");
      }
      const bool wasActive = std::exchange(raw->active, true);
      update([wasActive](State& s) {
        ++s.starts;
        if (!wasActive) ++s.activeClients;
      });
    });
    object.registerMethod("Stop").onInterface(kClientInterface).implementedAs([this, raw] {
      const bool wasActive = std::exchange(raw->active, false);
      update([wasActive](State& s) {
        ++s.stops;
        if (wasActive) --s.activeClients;
      });
    });
    object.registerProperty("DesktopId")
        .onInterface(kClientInterface)
        .withGetter([this] {
          std::lock_guard lock(mutex);
          return state.desktopId;
        })
        .withSetter([this](const std::string& id) { update([&](State& s) { s.desktopId = id; }); });
    object.registerProperty("RequestedAccuracyLevel")
        .onInterface(kClientInterface)
        .withGetter([this] {
          std::lock_guard lock(mutex);
          return state.requestedAccuracyLevel;
        })
        .withSetter([this](const std::uint32_t& level) {
          update([&](State& s) { s.requestedAccuracyLevel = level; });
        });
    object.registerProperty("Location").onInterface(kClientInterface).withGetter([this] {
      return currentLocation;
    });
    object.registerProperty("Active").onInterface(kClientInterface).withGetter([raw] {
      return raw->active;
    });
    object.registerSignal("LocationUpdated")
        .onInterface(kClientInterface)
        .withParameters<sdbus::ObjectPath, sdbus::ObjectPath>("old", "new");
    object.finishRegistration();
    clients.push_back(std::move(client));
    update([](State& s) { ++s.clientsCreated; });
    return path;
  }

  void addLocation(const Location& location) {
    const sdbus::ObjectPath path(std::string(kRoot) + "/Location/" +
                                 std::to_string(locations.size() + 1));
    auto object = sdbus::createObject(*connection, path);
    for (const auto& [name, value] :
         {std::pair{"Latitude", location.latitude}, std::pair{"Longitude", location.longitude},
          std::pair{"Accuracy", location.accuracy}}) {
      object->registerProperty(name).onInterface(kLocationInterface).withGetter([value = value] {
        return value;
      });
    }
    if (location.hasTimestamp) {
      object->registerProperty("Timestamp").onInterface(kLocationInterface).withGetter([location] {
        return sdbus::Struct<std::uint64_t, std::uint64_t>(location.seconds, location.microseconds);
      });
    }
    object->finishRegistration();
    locations.push_back(std::move(object));
    const sdbus::ObjectPath old = std::exchange(currentLocation, path);
    for (const auto& client : clients) {
      if (!client->active) continue;
      client->object->emitSignal("LocationUpdated")
          .onInterface(kClientInterface)
          .withArguments(old, path);
    }
  }

  void run() {
    while (!stopping) {
      sdbus::IConnection::PollData pollData;
      try {
        std::lock_guard lock(busMutex);
        while (connection->processPendingRequest()) {
        }
        pollData = connection->getEventLoopPollData();
      } catch (const sdbus::Error&) {
        return;  // the bus went away
      }
      pollfd fds[2] = {{pollData.fd, pollData.events, 0}, {wakeFd, POLLIN, 0}};
      if (::poll(fds, 2, pollData.getPollTimeout()) > 0 && (fds[1].revents & POLLIN) != 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(wakeFd, &count, sizeof count);
      }
    }
  }

  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeFd, &one, sizeof one);
  }
};

FakeGeoClue::FakeGeoClue(const PrivateBus& bus, Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = options;
  impl_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (impl_->wakeFd < 0) throw std::runtime_error("eventfd failed");
  impl_->connection = bus.connect();
  impl_->manager = sdbus::createObject(*impl_->connection, std::string(kRoot) + "/Manager");
  impl_->manager->registerMethod("GetClient")
      .onInterface(kManagerInterface)
      .implementedAs([impl = impl_.get()] { return impl->createClient(); });
  impl_->manager->finishRegistration();
  impl_->connection->requestName(kService);
  impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

FakeGeoClue::~FakeGeoClue() {
  impl_->stopping = true;
  impl_->wake();
  impl_->thread.join();
  impl_->locations.clear();
  impl_->clients.clear();
  impl_->manager.reset();
  impl_->connection.reset();
  ::close(impl_->wakeFd);
}

void FakeGeoClue::publishLocation(const Location& location) {
  {
    std::lock_guard lock(impl_->busMutex);
    impl_->addLocation(location);
  }
  impl_->wake();
}

FakeGeoClue::State FakeGeoClue::state() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->state;
}

bool FakeGeoClue::waitFor(const std::function<bool(const State&)>& predicate,
                          std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->changed.wait_for(lock, timeout, [&] { return predicate(impl_->state); });
}

}  // namespace orvex::testing
