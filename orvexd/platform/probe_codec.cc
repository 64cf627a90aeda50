#include "orvexd/platform/probe_codec.h"

#include <algorithm>
#include <array>
#include <utility>

#include "orvexd/base/json_limits.h"

namespace orvex {

namespace {

using Json = nlohmann::json;

// Longer than any locale identifier, zone name or date pattern ICU has.
constexpr std::size_t kMaxLocaleFieldBytes = 128;
constexpr std::size_t kMaxPreferredLanguages = 32;

constexpr std::array<std::pair<MeasurementSystem, std::string_view>, 4> kMeasurementNames{{
    {MeasurementSystem::kMetric, "metric"},
    {MeasurementSystem::kUS, "US"},
    {MeasurementSystem::kUK, "UK"},
    {MeasurementSystem::kOther, "other"},
}};

// Writes what the probe computed; text that is not UTF-8 is replaced rather than refused, so a
// strange file cannot make the whole answer fail.
std::string dumped(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The characters of locale identifiers ("sr_Latn_RS@calendar=japanese"), language tags and
// zone names ("America/Argentina/Buenos_Aires", "Etc/GMT+5").
bool isIdentifierText(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_-@=;/+.").find(c) != std::string_view::npos;
  });
}

// The string member `key` of `object`, or none with the reason in `problem`.
std::optional<std::string> stringMember(const Json& object, const char* key, std::string& problem) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) {
    problem = std::string(key).append(" is missing or not a string");
    return std::nullopt;
  }
  return found->get<std::string>();
}

// An identifier-like member: non-empty (unless `mayBeEmpty`), short, of identifier characters.
bool readIdentifier(const Json& object, const char* key, bool mayBeEmpty, std::string& out,
                    std::string& problem) {
  auto value = stringMember(object, key, problem);
  if (!value) return false;
  if ((value->empty() && !mayBeEmpty) || value->size() > kMaxLocaleFieldBytes ||
      !isIdentifierText(*value)) {
    problem = std::string(key).append(" is not a usable identifier");
    return false;
  }
  out = std::move(*value);
  return true;
}

std::optional<LocaleSnapshot> parseLocaleSnapshot(const Json& json, std::string& problem) {
  if (!json.is_object()) {
    problem = "is not an object";
    return std::nullopt;
  }
  LocaleSnapshot snapshot;
  if (!readIdentifier(json, "localeIdentifier", false, snapshot.localeIdentifier, problem) ||
      !readIdentifier(json, "calendarIdentifier", false, snapshot.calendarIdentifier, problem) ||
      !readIdentifier(json, "timeZoneName", false, snapshot.timeZoneName, problem) ||
      !readIdentifier(json, "effectiveSystemLanguage", false, snapshot.effectiveSystemLanguage,
                      problem) ||
      !readIdentifier(json, "regionCode", true, snapshot.regionCode, problem)) {
    return std::nullopt;
  }
  const auto measurement = stringMember(json, "measurementSystem", problem);
  if (!measurement) return std::nullopt;
  const auto named = std::find_if(kMeasurementNames.begin(), kMeasurementNames.end(),
                                  [&](const auto& entry) { return entry.second == *measurement; });
  if (named == kMeasurementNames.end()) {
    problem = "measurementSystem is unknown";
    return std::nullopt;
  }
  snapshot.measurementSystem = named->first;
  // A date pattern may hold any letter of the locale's script, but no control character.
  auto pattern = stringMember(json, "hourCyclePattern", problem);
  if (!pattern) return std::nullopt;
  if (pattern->empty() || pattern->size() > kMaxLocaleFieldBytes ||
      std::any_of(pattern->begin(), pattern->end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; })) {
    problem = "hourCyclePattern is not a usable pattern";
    return std::nullopt;
  }
  snapshot.hourCyclePattern = std::move(*pattern);
  const auto languages = json.find("preferredLanguages");
  if (languages == json.end() || !languages->is_array() || languages->empty() ||
      languages->size() > kMaxPreferredLanguages) {
    problem = "preferredLanguages is not a list of 1 to 32 languages";
    return std::nullopt;
  }
  for (const Json& language : *languages) {
    const Json entry{{"language", language}};
    std::string tag;
    if (!readIdentifier(entry, "language", false, tag, problem)) return std::nullopt;
    snapshot.preferredLanguages.push_back(std::move(tag));
  }
  return snapshot;
}

std::optional<InstalledApplicationList> parseApplications(const Json& json,
                                                          const InstalledApplicationLimits& limits,
                                                          std::string& problem) {
  const auto applications = json.is_object() ? json.find("applications") : json.end();
  const auto skipped = json.is_object() ? json.find("skippedFiles") : json.end();
  if (applications == json.end() || !applications->is_array() || skipped == json.end() ||
      !skipped->is_number_unsigned()) {
    problem = "is not an object with applications and skippedFiles";
    return std::nullopt;
  }
  // One entry a file at most, and one more skip for the files past the limit.
  if (applications->size() > limits.maxFiles || skipped->get<std::size_t>() > limits.maxFiles + 1) {
    problem = "counts more files than the limit";
    return std::nullopt;
  }
  InstalledApplicationList list;
  list.skippedFiles = skipped->get<std::size_t>();
  for (const Json& entry : *applications) {
    const auto id = entry.is_object() ? entry.find("id") : entry.end();
    if (id == entry.end() || !id->is_string() || id->get_ref<const std::string&>().empty() ||
        id->get_ref<const std::string&>().size() > limits.maxIdentifierBytes) {
      problem = "has an application without a usable id";
      return std::nullopt;
    }
    InstalledApplication application{id->get<std::string>(), std::nullopt};
    if (const auto version = entry.find("version"); version != entry.end()) {
      if (!version->is_string() ||
          version->get_ref<const std::string&>().size() > limits.maxVersionBytes) {
        problem = "has an application without a usable version";
        return std::nullopt;
      }
      application.bundleVersion = version->get<std::string>();
    }
    if (!list.applications.empty() &&
        list.applications.back().bundleIdentifier >= application.bundleIdentifier) {
      problem = "has applications out of order or twice";
      return std::nullopt;
    }
    list.applications.push_back(std::move(application));
  }
  return list;
}

}  // namespace

std::string localeSnapshotJson(const LocaleSnapshot& snapshot) {
  std::string_view measurement = "other";
  for (const auto& [system, name] : kMeasurementNames) {
    if (system == snapshot.measurementSystem) measurement = name;
  }
  return dumped(Json{{"localeIdentifier", snapshot.localeIdentifier},
                     {"calendarIdentifier", snapshot.calendarIdentifier},
                     {"measurementSystem", measurement},
                     {"hourCyclePattern", snapshot.hourCyclePattern},
                     {"timeZoneName", snapshot.timeZoneName},
                     {"preferredLanguages", snapshot.preferredLanguages},
                     {"effectiveSystemLanguage", snapshot.effectiveSystemLanguage},
                     {"regionCode", snapshot.regionCode}});
}

std::optional<LocaleSnapshot> localeSnapshotFromJson(std::string_view text, std::string* problem) {
  std::string why;
  const Json json = parseJsonWithinLimits(text, {kLocaleJsonMaxBytes, 4}, &why);
  auto snapshot = json.is_discarded() ? std::nullopt : parseLocaleSnapshot(json, why);
  if (!snapshot && problem != nullptr) *problem = std::move(why);
  return snapshot;
}

std::string installedApplicationsJson(const InstalledApplicationList& list) {
  Json applications = Json::array();
  for (const InstalledApplication& application : list.applications) {
    Json entry{{"id", application.bundleIdentifier}};
    if (application.bundleVersion) entry["version"] = *application.bundleVersion;
    applications.push_back(std::move(entry));
  }
  return dumped(
      Json{{"applications", std::move(applications)}, {"skippedFiles", list.skippedFiles}});
}

std::size_t installedApplicationsJsonMaxBytes(const InstalledApplicationLimits& limits) {
  // Each entry's identifier and version (without control characters, so escaped as two bytes at
  // most), and its keys and quotes.
  return 1024 + limits.maxFiles * (2 * (limits.maxIdentifierBytes + limits.maxVersionBytes) + 32);
}

std::optional<InstalledApplicationList> installedApplicationsFromJson(
    std::string_view text, const InstalledApplicationLimits& limits, std::string* problem) {
  std::string why;
  const Json json =
      parseJsonWithinLimits(text, {installedApplicationsJsonMaxBytes(limits), 4}, &why);
  auto list = json.is_discarded() ? std::nullopt : parseApplications(json, limits, why);
  if (!list && problem != nullptr) *problem = std::move(why);
  return list;
}

}  // namespace orvex
