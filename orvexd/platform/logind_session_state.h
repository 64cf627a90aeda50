// What the login manager (systemd-logind, on the system bus) says about the user's session, for
// background work that should run only while the device is not in use.
//
// - Screen asleep: the user's display session reports IdleHint (the desktop set it idle, or the
//   screen blanked). A user without a display session has no screen in use: asleep.
// - Unlocked since boot: the user has logged in since boot (logind's user State "online" or
//   "active", not only "lingering"), or a session of theirs was seen unlocked (LockedHint false)
//   by an earlier reading. Logging in is the first unlock: it is when the user's keys are
//   available.
//
// Without a system bus or without logind both count as met, so that the daemon still does its
// background work on systems that have neither.
//
// Each current() connects to the system bus, reads the few properties with a short time-out,
// and disconnects: it is asked for rarely (when a background run is due), and holds no
// connection or thread in between. Thread-safe.
#pragma once

#include <atomic>
#include <chrono>

namespace orvex {

struct SessionState {
  bool screenAsleep = true;
  bool unlockedSinceBoot = true;
};

class LogindSessionState {
 public:
  static constexpr std::chrono::milliseconds kCallTimeout{500};

  SessionState current();

 private:
  std::atomic<bool> seenUnlocked_{false};
};

}  // namespace orvex
