// The device's position, from the system location service (GeoClue2 on the system bus).
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "orvexd/platform/clock.h"

namespace orvex {

struct LocationFix {
  double latitude = 0;
  double longitude = 0;
  double horizontalAccuracy = 0;  // metres
  // How the fix was obtained: 1-3 and 9 satellite, 4-5 Wi-Fi, 6-8 cell, 0 unknown. GeoClue does
  // not say, so it is judged from the accuracy.
  int type = 0;
  WallTime timestamp;
};

struct LocationUpdate {
  // False when the location service is missing or refused us.
  bool authorized = false;
  std::optional<LocationFix> fix;
};

class LocationProvider {
 public:
  using UpdateHandler = std::function<void(const LocationUpdate&)>;

  virtual ~LocationProvider() = default;
  // Starts watching the position; `handler` is called on a thread of the provider's with every
  // change, at least once (so a missing service is reported as unauthorized). Later calls only
  // replace the handler. Safe from any thread.
  virtual void startUpdates(UpdateHandler handler) = 0;
  virtual void stopUpdates() = 0;
};

// GeoClue2 over the system bus, as desktop id `desktopId`; when no system bus or no GeoClue is
// there, the provider reports a single unauthorized update.
std::unique_ptr<LocationProvider> makeGeoClueLocationProvider(std::string desktopId);

}  // namespace orvex
