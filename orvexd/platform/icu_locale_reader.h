// The locale computed through ICU's locale data. Only the probe helper (tools/orvexd-probe)
// links this: the daemon asks the helper, so that ICU's calendar, date-pattern and zone data are
// never mapped into the long-lived process.
#pragma once

#include <string>
#include <vector>

#include "orvexd/platform/locale_provider.h"

namespace orvex {

// Reads the locale variables from the first of `localeFiles` that sets any, else from the
// process environment, and the time zone from TZ or the system; logs a variable that names no
// locale.
LocaleSnapshot readLocaleSnapshot(const std::vector<std::string>& localeFiles);

}  // namespace orvex
