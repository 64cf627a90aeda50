// The user's locale as the system states it: the POSIX locale variables (from the user's or the
// system's locale.conf, else the environment), the preferred-language list, the system time zone,
// all interpreted through ICU by the probe helper (orvexd-probe locale), so that ICU's locale data
// stays out of the daemon.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace orvex {

enum class MeasurementSystem { kMetric, kUS, kUK, kOther };

struct LocaleSnapshot {
  // BCP-47-like identifier with underscores, as ICU writes it: "en_US", "de_DE", "zh_Hans_CN".
  std::string localeIdentifier;
  // ICU calendar type of the locale: "gregorian", "japanese", "buddhist", ...
  std::string calendarIdentifier;
  MeasurementSystem measurementSystem = MeasurementSystem::kOther;
  // The locale's best time pattern for the skeleton "j", the hour in the locale's preferred
  // cycle ("HH", "h a", "HH 'Uhr'", ...): 'h' or 'K' means a 12-hour clock, 'H' or 'k' 24 hours.
  std::string hourCyclePattern;
  // Olson name of the system time zone, such as "Europe/Paris".
  std::string timeZoneName;
  // The user's preferred languages, most preferred first, as language tags ("en-US", "fr").
  std::vector<std::string> preferredLanguages;
  // The language the system's interface is shown in, as a language code ("en", "de").
  std::string effectiveSystemLanguage;
  // Upper-case region of the locale ("US"); empty when the locale names none.
  std::string regionCode;
};

class LocaleProvider {
 public:
  virtual ~LocaleProvider() = default;
  // Reads the current state afresh on each call; safe from any thread.
  virtual LocaleSnapshot currentLocale() const = 0;
};

// The locale files in the order they count: $XDG_CONFIG_HOME/locale.conf (when the directory is
// known), /etc/locale.conf, then Debian's /etc/default/locale.
std::vector<std::string> userLocaleFiles(const std::string& xdgConfigHome);

// Reads LC_ALL / LC_MESSAGES / LANG (and LC_MEASUREMENT, LC_TIME where set) and LANGUAGE from the
// first of `localeFiles` that sets any, else from the process environment; the time zone from TZ
// or the system (/etc/localtime). Each reading runs the probe helper; when it fails, the reading
// is that of no locale at all ("en", Gregorian, UTC), logged.
std::unique_ptr<LocaleProvider> makeSystemLocaleProvider(std::vector<std::string> localeFiles = {});

}  // namespace orvex
