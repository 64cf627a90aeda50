#include "orvexd/platform/logind_session_state.h"

#include <sdbus-c++/sdbus-c++.h>

#include <exception>
#include <string>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kSelfUserPath = "/org/freedesktop/login1/user/self";
constexpr const char* kUserInterface = "org.freedesktop.login1.User";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";

const OrvexLog& log() { return OrvexLogForCategory(kOrvexLogGeneral); }

}  // namespace

SessionState LogindSessionState::current() {
  SessionState state;
  try {
    auto connection = sdbus::createSystemBusConnection();
    connection->setMethodCallTimeout(kCallTimeout);
    auto user = sdbus::createProxy(*connection, kService, kSelfUserPath);
    const std::string userState = user->getProperty("State").onInterface(kUserInterface);
    const sdbus::Struct<std::string, sdbus::ObjectPath> display =
        user->getProperty("Display").onInterface(kUserInterface);
    const std::string& sessionPath = display.get<1>();
    bool locked = false;
    if (!sessionPath.empty() && sessionPath != "/") {
      auto session = sdbus::createProxy(*connection, kService, sessionPath);
      state.screenAsleep = session->getProperty("IdleHint").onInterface(kSessionInterface);
      locked = session->getProperty("LockedHint").onInterface(kSessionInterface);
      if (!locked) seenUnlocked_ = true;
    }
    state.unlockedSinceBoot = userState == "online" || userState == "active" || seenUnlocked_;
    log().debug("session state: user %@, display session %@, idle %d, locked %d", userState,
                sessionPath, static_cast<int>(state.screenAsleep), static_cast<int>(locked));
  } catch (const sdbus::Error& error) {
    log().debug("no session state from the login manager (%@): both criteria count as met",
                error.getName());
    return SessionState{};
  } catch (const std::exception& error) {
    log().debug("no session state from the login manager (%s): both criteria count as met",
                error.what());
    return SessionState{};
  }
  return state;
}

}  // namespace orvex
