#include "orvexd/platform/input_defaults.h"

#include <cmath>
#include <cstdlib>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/defaults_store.h"

namespace orvex {

std::string defaultKeyboardInputMode(const DefaultsStore& defaults) {
  if (auto mode = defaults.stringForKey(kORVKeyboardInputModeKey); mode && !mode->empty()) {
    return *mode;
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') continue;
    std::string locale(value);
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (!locale.empty() && locale != "C" && locale != "POSIX") return locale;
  }
  return "en_US";
}

std::optional<double> mainScreenScale(const DefaultsStore& defaults) {
  if (const double scale = defaults.doubleForKey(kORVScreenScaleKey);
      scale > 0 && std::isfinite(scale)) {
    return scale;
  }
  if (const char* gdkScale = std::getenv("GDK_SCALE"); gdkScale != nullptr) {
    const double scale = std::strtod(gdkScale, nullptr);
    if (scale > 0 && std::isfinite(scale)) return scale;
  }
  return std::nullopt;
}

}  // namespace orvex
