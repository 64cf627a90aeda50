// A small GeoClue2 service on a private bus, for the location tests.
//
// It owns org.freedesktop.GeoClue2 and serves the manager's GetClient, clients with the
// DesktopId, RequestedAccuracyLevel, Location and Active properties, Start and Stop and the
// LocationUpdated signal, and Location objects with Latitude, Longitude, Accuracy and Timestamp.
// It serves the bus on a thread of its own; the members below may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace orvex::testing {

class PrivateBus;

class FakeGeoClue {
 public:
  struct Options {
    // Start answers org.freedesktop.DBus.Error.AccessDenied, as GeoClue does for an
    // application its agent refuses.
    bool denyStart = false;
  };

  struct Location {
    double latitude = 0;
    double longitude = 0;
    double accuracy = 0;
    std::uint64_t seconds = 0;
    std::uint64_t microseconds = 0;
    bool hasTimestamp = true;  // false leaves the Timestamp property out
  };

  // What the service has seen, for the tests to check.
  struct State {
    int clientsCreated = 0;
    std::string desktopId;  // of the latest client
    std::uint32_t requestedAccuracyLevel = 0;
    int starts = 0;
    int stops = 0;
    int activeClients = 0;
  };

  FakeGeoClue(const PrivateBus& bus, Options options);
  explicit FakeGeoClue(const PrivateBus& bus) : FakeGeoClue(bus, Options{}) {}
  ~FakeGeoClue();
  FakeGeoClue(const FakeGeoClue&) = delete;
  FakeGeoClue& operator=(const FakeGeoClue&) = delete;

  // Adds a Location object, makes it every client's Location and announces it to the started
  // clients.
  void publishLocation(const Location& location);

  State state() const;
  // Waits until `predicate` holds for the state; false when `timeout` passes first.
  bool waitFor(const std::function<bool(const State&)>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex::testing
