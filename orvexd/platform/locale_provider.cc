// The locale as the probe helper computes it: each reading runs "orvexd-probe locale FILE..."
// with this process's locale variables and TZ, and reads back the snapshot it prints. ICU's
// calendar, date-pattern and zone data are thus mapped only for the helper's short life. When the
// helper fails, the reading is the one for no locale at all, with the reason logged; the next
// reading (at the next locale or time-zone change) tries the helper again.
#include "orvexd/platform/locale_provider.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/probe_codec.h"
#include "orvexd/platform/probe_runner.h"

namespace orvex {

namespace {

// What the helper answers when no variable names a locale and the zone is unknown.
LocaleSnapshot fallbackSnapshot() {
  LocaleSnapshot snapshot;
  snapshot.localeIdentifier = "en";
  snapshot.calendarIdentifier = "gregorian";
  snapshot.measurementSystem = MeasurementSystem::kUS;
  snapshot.hourCyclePattern = "h a";
  snapshot.timeZoneName = "UTC";
  snapshot.preferredLanguages = {"en"};
  snapshot.effectiveSystemLanguage = "en";
  return snapshot;
}

class ProbeLocaleProvider final : public LocaleProvider {
 public:
  explicit ProbeLocaleProvider(std::vector<std::string> localeFiles)
      : localeFiles_(std::move(localeFiles)) {}

  LocaleSnapshot currentLocale() const override {
    ProbeRequest request;
    request.executable = probeExecutablePath();
    request.arguments.emplace_back("locale");
    request.arguments.insert(request.arguments.end(), localeFiles_.begin(), localeFiles_.end());
    request.environment = probeEnvironment(
        {"LANG", "LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_MEASUREMENT", "LC_TIME", "TZ"});
    request.maxOutputBytes = kLocaleJsonMaxBytes;
    ProbeOutcome outcome = runProbe(request);
    std::string problem = std::move(outcome.failure);
    if (outcome.output) {
      if (auto snapshot = localeSnapshotFromJson(*outcome.output, &problem)) return *snapshot;
      problem = std::string("printed a locale that ").append(problem);
    }
    OrvexLogForCategory(kOrvexLogGeneral)
        .error("could not read the locale: %@ %@; using \"en\"", request.executable.string(),
               problem);
    return fallbackSnapshot();
  }

 private:
  const std::vector<std::string> localeFiles_;
};

}  // namespace

std::vector<std::string> userLocaleFiles(const std::string& xdgConfigHome) {
  std::vector<std::string> files;
  if (!xdgConfigHome.empty()) files.push_back(xdgConfigHome + "/locale.conf");
  files.emplace_back("/etc/locale.conf");
  files.emplace_back("/etc/default/locale");
  return files;
}

std::unique_ptr<LocaleProvider> makeSystemLocaleProvider(std::vector<std::string> localeFiles) {
  return std::make_unique<ProbeLocaleProvider>(std::move(localeFiles));
}

}  // namespace orvex
