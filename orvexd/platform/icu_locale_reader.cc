// The locale as the user's locale files (or else the environment) state it, interpreted through
// ICU.
//
// The variables come from the first locale file that sets any of them, in the order they
// are given (the user's own locale.conf before the system's), and from the process environment
// only when no file does: a session daemon's environment is fixed when it starts, the files are
// what a settings panel rewrites. Each reading reads the file afresh. A file is lines of
// NAME=value (the value optionally quoted), with # comments; only LANG, LANGUAGE and LC_* count.
//
// Which variable decides what follows the C library: LC_ALL wins over the variable of the
// category (LC_MESSAGES for the locale itself, LC_MEASUREMENT, LC_TIME), which wins over LANG;
// an empty variable counts as unset. A POSIX name "de_DE.UTF-8@euro" becomes the ICU identifier
// "de_DE": the code set is dropped, the modifiers "latin", "cyrillic" and "devanagari" become
// scripts, modifiers of the form "key=value" (such as "calendar=japanese") become ICU keywords,
// other modifiers ("euro") are dropped.
//
// "C" and "POSIX" name the untranslated system, which ICU calls "en_US_POSIX": that locale writes
// numbers and dates in a machine form no user expects, so they read as plain "en" (English, no
// region). A value that is no locale name at all reads as "en" too, with a log line.
#include "orvexd/platform/icu_locale_reader.h"

#include <unicode/calendar.h>
#include <unicode/dtptngen.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/ulocdata.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"

namespace orvex {

namespace {

constexpr const char* kFallbackLocale = "en";

// Larger files are not locale files; reading them would only cost memory.
constexpr std::size_t kMaxLocaleFileBytes = 64 * 1024;

bool isLocaleVariableName(std::string_view name) {
  return name == "LANG" || name == "LANGUAGE" || (name.starts_with("LC_") && name.size() > 3);
}

// The locale variables in force, each non-empty.
class LocaleVariables {
 public:
  static LocaleVariables fromEnvironment() {
    LocaleVariables variables;
    for (const char* name :
         {"LANG", "LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_MEASUREMENT", "LC_TIME"}) {
      const char* value = std::getenv(name);
      if (value != nullptr && *value != '\0') variables.values_.emplace(name, value);
    }
    return variables;
  }

  // None when the file cannot be read, is too large or sets no locale variable.
  static std::optional<LocaleVariables> fromFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::string text(kMaxLocaleFileBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxLocaleFileBytes) return std::nullopt;
    LocaleVariables variables;
    std::string_view rest(text);
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      const std::string_view line = trimWhitespace(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
      const std::size_t equals = line.find('=');
      if (line.starts_with('#') || equals == std::string_view::npos) continue;
      const std::string_view name = trimWhitespace(line.substr(0, equals));
      std::string_view value = trimWhitespace(line.substr(equals + 1));
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
          value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
      }
      if (isLocaleVariableName(name) && !value.empty()) {
        variables.values_.insert_or_assign(std::string(name), std::string(value));
      }
    }
    if (variables.values_.empty()) return std::nullopt;
    return variables;
  }

  std::optional<std::string> value(std::string_view name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) return std::nullopt;
    return found->second;
  }

  // The value that decides `category` (LC_ALL, else the category's own variable, else LANG).
  std::optional<std::string> forCategory(const char* category) const {
    if (auto value = this->value("LC_ALL")) return value;
    if (auto value = this->value(category)) return value;
    return value("LANG");
  }

 private:
  std::map<std::string, std::string, std::less<>> values_;
};

bool isAsciiAlpha(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalpha(c) != 0 && c < 0x80;
  });
}

bool isAsciiDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [](unsigned char c) { return c >= '0' && c <= '9'; });
}

bool isKeywordText(std::string_view text, bool allowDash) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [allowDash](unsigned char c) {
    return (c < 0x80 && std::isalnum(c) != 0) || (allowDash && c == '-');
  });
}

std::string uppered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// The ICU keywords ("calendar=japanese;numbers=arab") of a modifier, or nullopt when the
// modifier is not made of well-formed keywords.
std::optional<std::string> keywordsOf(std::string_view modifier) {
  std::string keywords;
  while (!modifier.empty()) {
    const std::size_t end = std::min(modifier.find(';'), modifier.size());
    const std::string_view item = modifier.substr(0, end);
    modifier.remove_prefix(std::min(end + 1, modifier.size()));
    const std::size_t equals = item.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string_view key = item.substr(0, equals);
    const std::string_view value = item.substr(equals + 1);
    if (!isKeywordText(key, false) || !isKeywordText(value, true)) return std::nullopt;
    if (!keywords.empty()) keywords += ';';
    keywords += asciiLowercase(key) + '=' + asciiLowercase(value);
  }
  if (keywords.empty()) return std::nullopt;
  return keywords;
}

// Whether `text` names the C locale ("C", "C.UTF-8", "POSIX").
bool isPosixLocaleName(std::string_view text) {
  const std::string_view name = text.substr(0, text.find_first_of(".@"));
  return name == "C" || name == "POSIX";
}

// The ICU locale a POSIX locale name (or a language tag such as "pt-BR") names; nullopt when
// the text is not one.
std::optional<icu::Locale> localeFromPosixName(std::string_view text) {
  if (isPosixLocaleName(text)) return icu::Locale(kFallbackLocale);
  std::string_view name = text;
  std::string_view modifier;
  if (const std::size_t at = name.find('@'); at != std::string_view::npos) {
    modifier = name.substr(at + 1);
    name = name.substr(0, at);
  }
  if (const std::size_t dot = name.find('.'); dot != std::string_view::npos) {
    name = name.substr(0, dot);
  }

  std::string language;
  std::string script;
  std::string region;
  int part = 0;
  while (!name.empty()) {
    const std::size_t end = std::min(name.find_first_of("_-"), name.size());
    const std::string_view token = name.substr(0, end);
    const bool last = end == name.size();
    name.remove_prefix(std::min(end + 1, name.size()));
    if (token.empty() || (!last && name.empty())) return std::nullopt;  // "de_", "_DE", "de__DE"
    if (part == 0) {
      if (!isAsciiAlpha(token) || token.size() < 2 || token.size() > 3) return std::nullopt;
      language = asciiLowercase(token);
      part = 1;
    } else if (part == 1 && token.size() == 4 && isAsciiAlpha(token)) {
      script = uppered(token.substr(0, 1)) + asciiLowercase(token.substr(1));
      part = 2;
    } else if (part <= 2 && ((token.size() == 2 && isAsciiAlpha(token)) ||
                             (token.size() == 3 && isAsciiDigits(token)))) {
      region = uppered(token);
      part = 3;
    } else {
      return std::nullopt;
    }
  }
  if (language.empty()) return std::nullopt;

  std::string keywords;
  if (modifier == "latin") {
    if (script.empty()) script = "Latn";
  } else if (modifier == "cyrillic") {
    if (script.empty()) script = "Cyrl";
  } else if (modifier == "devanagari") {
    if (script.empty()) script = "Deva";
  } else if (modifier.find('=') != std::string_view::npos) {
    const auto parsed = keywordsOf(modifier);
    if (!parsed) return std::nullopt;
    keywords = *parsed;
  }

  std::string identifier = language;
  if (!script.empty()) identifier += "_" + script;
  if (!region.empty()) identifier += "_" + region;
  if (!keywords.empty()) identifier += "@" + keywords;
  icu::Locale locale = icu::Locale::createFromName(identifier.c_str());
  if (locale.isBogus() || *locale.getLanguage() == '\0') return std::nullopt;
  return locale;
}

// Logs a value that names no locale, once per distinct value, so that a bad LANG does not
// flood the log on every request.
void reportBadLocale(const char* variable, const std::string& value) {
  static std::mutex mutex;
  static std::set<std::string> reported;
  std::lock_guard lock(mutex);
  if (reported.size() > 64 || !reported.insert(value).second) return;
  OrvexLogForCategory(kOrvexLogGeneral)
      .error("%s names no locale (\"%@\"); using \"%s\"", variable, value, kFallbackLocale);
}

// The locale that decides `category`; "en" when no variable is set or the value is bad.
icu::Locale categoryLocale(const LocaleVariables& variables, const char* category) {
  const auto value = variables.forCategory(category);
  if (!value) return icu::Locale(kFallbackLocale);
  if (auto locale = localeFromPosixName(*value)) return *locale;
  reportBadLocale(category, *value);
  return icu::Locale(kFallbackLocale);
}

// language[-Script][-Region]
std::string languageTag(const icu::Locale& locale) {
  std::string tag = locale.getLanguage();
  if (*locale.getScript() != '\0') tag += std::string("-") + locale.getScript();
  if (*locale.getCountry() != '\0') tag += std::string("-") + locale.getCountry();
  return tag;
}

MeasurementSystem measurementSystemOf(const icu::Locale& locale) {
  icu::Locale withRegion(locale);
  if (*withRegion.getCountry() == '\0') {
    UErrorCode status = U_ZERO_ERROR;
    withRegion.addLikelySubtags(status);
    if (U_FAILURE(status)) withRegion = locale;
  }
  UErrorCode status = U_ZERO_ERROR;
  const UMeasurementSystem system = ulocdata_getMeasurementSystem(withRegion.getName(), &status);
  if (U_FAILURE(status)) return MeasurementSystem::kOther;
  switch (system) {
    case UMS_SI:
      return MeasurementSystem::kMetric;
    case UMS_US:
      return MeasurementSystem::kUS;
    case UMS_UK:
      return MeasurementSystem::kUK;
    default:
      return MeasurementSystem::kOther;
  }
}

std::string hourCyclePatternOf(const icu::Locale& locale) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::DateTimePatternGenerator> generator(
      icu::DateTimePatternGenerator::createInstance(locale, status));
  if (U_FAILURE(status) || !generator) return "HH:mm";
  const icu::UnicodeString pattern = generator->getBestPattern(icu::UnicodeString(u"j"), status);
  if (U_FAILURE(status) || pattern.isEmpty()) return "HH:mm";
  std::string out;
  pattern.toUTF8String(out);
  return out;
}

std::string calendarOf(const icu::Locale& locale) {
  UErrorCode status = U_ZERO_ERROR;
  // A fixed zone: the calendar's type does not depend on it, and ICU's default zone is left
  // alone (see hostTimeZoneName).
  std::unique_ptr<icu::Calendar> calendar(
      icu::Calendar::createInstance(*icu::TimeZone::getGMT(), locale, status));
  if (U_FAILURE(status) || !calendar || calendar->getType() == nullptr) return "gregorian";
  return calendar->getType();
}

bool isKnownTimeZone(std::string_view name) {
  if (name.empty()) return false;
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString canonical;
  UBool isSystemId = false;
  icu::TimeZone::getCanonicalID(icu::UnicodeString::fromUTF8(icu::StringPiece(
                                    name.data(), static_cast<int32_t>(name.size()))),
                                canonical, isSystemId, status);
  return U_SUCCESS(status) && isSystemId && canonical != UNICODE_STRING_SIMPLE("Etc/Unknown");
}

std::string hostTimeZoneName() {
  // ICU keeps the host zone's name in a static buffer without a lock; the default zone is
  // detected (once) through the same code, so it is settled first, under the same mutex.
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  const std::unique_ptr<icu::TimeZone> settled(icu::TimeZone::createDefault());
  std::unique_ptr<icu::TimeZone> host(icu::TimeZone::detectHostTimeZone());
  if (!host) return "UTC";
  icu::UnicodeString id;
  host->getID(id);
  std::string name;
  id.toUTF8String(name);
  if (!isKnownTimeZone(name)) return "UTC";
  return name;
}

std::string timeZoneName() {
  if (const char* tz = std::getenv("TZ"); tz != nullptr) {
    std::string_view name(tz);
    // Set but empty means UTC to the C library.
    if (name.empty()) return "UTC";
    if (name.front() == ':') name.remove_prefix(1);
    // ":/usr/share/zoneinfo/Europe/Paris" names a zone by its file.
    constexpr std::string_view kZoneInfo = "zoneinfo/";
    if (const std::size_t at = name.rfind(kZoneInfo);
        name.starts_with('/') && at != std::string_view::npos) {
      name.remove_prefix(at + kZoneInfo.size());
    }
    if (isKnownTimeZone(name)) return std::string(name);
  }
  return hostTimeZoneName();
}

std::vector<std::string> preferredLanguagesFor(const LocaleVariables& variables,
                                               const icu::Locale& mainLocale) {
  std::vector<std::string> languages;
  auto add = [&languages](std::string tag) {
    if (std::find(languages.begin(), languages.end(), tag) == languages.end()) {
      languages.push_back(std::move(tag));
    }
  };
  if (const auto list = variables.value("LANGUAGE")) {
    std::string_view rest(*list);
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find(':'), rest.size());
      const std::string_view entry = rest.substr(0, end);
      rest.remove_prefix(std::min(end + 1, rest.size()));
      // "C" in the list stands for the untranslated messages, not for a language.
      if (entry.empty() || isPosixLocaleName(entry)) continue;
      if (auto locale = localeFromPosixName(entry)) add(languageTag(*locale));
    }
  }
  if (languages.empty()) add(languageTag(mainLocale));
  return languages;
}

LocaleVariables currentVariables(const std::vector<std::string>& localeFiles) {
  for (const std::string& path : localeFiles) {
    if (auto variables = LocaleVariables::fromFile(path)) return std::move(*variables);
  }
  return LocaleVariables::fromEnvironment();
}

}  // namespace

LocaleSnapshot readLocaleSnapshot(const std::vector<std::string>& localeFiles) {
  const LocaleVariables variables = currentVariables(localeFiles);
  LocaleSnapshot snapshot;
  const icu::Locale mainLocale = categoryLocale(variables, "LC_MESSAGES");
  snapshot.localeIdentifier = mainLocale.getName();
  snapshot.calendarIdentifier = calendarOf(mainLocale);
  snapshot.measurementSystem = measurementSystemOf(categoryLocale(variables, "LC_MEASUREMENT"));
  snapshot.hourCyclePattern = hourCyclePatternOf(categoryLocale(variables, "LC_TIME"));
  snapshot.timeZoneName = timeZoneName();
  snapshot.preferredLanguages = preferredLanguagesFor(variables, mainLocale);
  snapshot.effectiveSystemLanguage = mainLocale.getLanguage();
  snapshot.regionCode = uppered(mainLocale.getCountry());
  return snapshot;
}

}  // namespace orvex
