// The device's keyboard input mode and screen scale, for requests whose client gave none.
//
// Both can be pinned in the defaults store ("ORVKeyboardInputMode", "ORVScreenScale"), which is
// how an integrator states what the device has. Otherwise the input mode is the locale's
// language and region from the environment (LC_ALL, LC_MESSAGES, LANG: "de_DE.UTF-8" gives
// "de_DE"), and the scale the desktop's GDK_SCALE.
#pragma once

#include <optional>
#include <string>

namespace orvex {

class DefaultsStore;

std::string defaultKeyboardInputMode(const DefaultsStore& defaults);
// None when neither the defaults nor the desktop say.
std::optional<double> mainScreenScale(const DefaultsStore& defaults);

}  // namespace orvex
