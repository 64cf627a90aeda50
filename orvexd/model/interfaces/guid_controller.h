// What components need of the user GUID: the current one, and a way to rotate it.
// OrvexUserGUIDController is the implementation.
#pragma once

namespace orvex {

class Uuid;

class GUIDController {
 public:
  virtual ~GUIDController() = default;
  // The current GUID, rotated first if it has expired. Synchronous; callable from any thread,
  // the controller's own queue included.
  virtual Uuid currentUserGUID() = 0;
  // Rotates the GUID, asynchronously but before any later currentUserGUID() answers.
  virtual void reset() = 0;
};

}  // namespace orvex
