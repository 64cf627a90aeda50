// The user GUID that every request and feedback record carries, so the back-end can tie
// together what one user does over a short span and nothing longer.
//
// It is a random UUID held only in memory (a restarted daemon always starts with a new one),
// replaced 15 minutes after it was made, or at once on reset(). Rotation is lazy: nothing happens
// when the 15 minutes pass until somebody asks for the GUID. Each rotation adds 1 to the
// "com.zelmor.orvexd.userguid" counter and posts "ORVUserGUIDChangeNotification" (no sender, no
// user information) from the GUID queue, after the new GUID is in place.
#pragma once

#include <memory>

#include "orvexd/model/interfaces/guid_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

class Assembly;

class OrvexUserGUIDController final : public GUIDController,
                                      public std::enable_shared_from_this<OrvexUserGUIDController> {
 public:
  static constexpr Duration kLifetime = std::chrono::seconds(900);

  // Makes the queue, a fresh GUID and its expiry; no notification and no counter at start.
  explicit OrvexUserGUIDController(Assembly& assembly);

  Uuid currentUserGUID() override;
  void reset() override;

 private:
  // Must run on queue_.
  Uuid currentOnQueue();
  void _rollGUID();

  Assembly& assembly_;
  SerialQueue queue_;  // "com.zelmor.orvex.guid"
  // Both owned by queue_.
  Uuid lastKnownUserGUID_;
  WallTime lastKnownUserGUIDExpirationDate_;
};

}  // namespace orvex
