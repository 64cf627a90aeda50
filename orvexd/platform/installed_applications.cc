#include "orvexd/platform/installed_applications.h"

#include <chrono>
#include <cstdlib>
#include <set>
#include <string_view>
#include <system_error>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/platform/probe_codec.h"
#include "orvexd/platform/probe_runner.h"

namespace orvex {

namespace fs = std::filesystem;

namespace {

const OrvexLog& appsLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

bool isDirectory(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

// Adds `directory` once (by its resolved path) to `out`.
void addUnique(std::vector<fs::path>& out, std::set<fs::path>& seen, const fs::path& directory) {
  std::error_code error;
  const fs::path canonical = fs::canonical(directory, error);
  if (error) return;
  if (seen.insert(canonical).second) out.push_back(directory);
}

}  // namespace

MetainfoRoots MetainfoRoots::fromEnvironment() {
  MetainfoRoots roots;
  std::string dataDirs = environment("XDG_DATA_DIRS");
  if (dataDirs.empty()) dataDirs = "/usr/local/share:/usr/share";
  std::string_view rest = dataDirs;
  while (!rest.empty()) {
    const std::size_t colon = rest.find(':');
    const std::string_view entry = rest.substr(0, colon);
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    if (!entry.empty() && entry.front() == '/') roots.dataDirectories.emplace_back(entry);
  }
  roots.flatpakInstallations.emplace_back("/var/lib/flatpak");
  std::string dataHome = environment("XDG_DATA_HOME");
  if (dataHome.empty() || dataHome.front() != '/') {
    const std::string home = environment("HOME");
    if (!home.empty()) dataHome = fs::path(home) / ".local/share";
  }
  if (!dataHome.empty()) roots.flatpakInstallations.push_back(fs::path(dataHome) / "flatpak");
  return roots;
}

MetainfoLocations findMetainfoLocations(const MetainfoRoots& roots,
                                        const InstalledApplicationLimits& limits) {
  MetainfoLocations locations;
  std::set<fs::path> seenMetainfo;
  std::set<fs::path> seenWatched;
  const auto addMetainfo = [&](const fs::path& directory) {
    if (!isDirectory(directory)) return false;
    addUnique(locations.metainfoDirectories, seenMetainfo, directory);
    addUnique(locations.watchedDirectories, seenWatched, directory);
    return true;
  };
  const auto addShare = [&](const fs::path& share) {
    const bool metainfo = addMetainfo(share / "metainfo");
    const bool appdata = addMetainfo(share / "appdata");
    // Without both, a new one may appear there.
    if (!(metainfo && appdata)) addUnique(locations.watchedDirectories, seenWatched, share);
  };
  for (const fs::path& data : roots.dataDirectories) addShare(data);
  for (const fs::path& installation : roots.flatpakInstallations) {
    (void)addMetainfo(installation / "exports/share/metainfo");
    const fs::path apps = installation / "app";
    if (!isDirectory(apps)) continue;
    addUnique(locations.watchedDirectories, seenWatched, apps);
    std::error_code error;
    std::size_t count = 0;
    for (fs::directory_iterator it(apps, error), end; !error && it != end; it.increment(error)) {
      if (++count > limits.maxFlatpakApps) {
        appsLog().error("more than %zu Flatpak applications in %@, ignoring the rest",
                        limits.maxFlatpakApps, apps.string());
        break;
      }
      const fs::path current = it->path() / "current";
      if (!isDirectory(current)) continue;
      addUnique(locations.watchedDirectories, seenWatched, current);
      const fs::path share = current / "active/files/share";
      (void)addMetainfo(share / "metainfo");
      (void)addMetainfo(share / "appdata");
    }
  }
  return locations;
}

std::optional<InstalledApplicationList> scanInstalledApplications(
    const std::vector<fs::path>& metainfoDirectories, const InstalledApplicationLimits& limits) {
  ProbeRequest request;
  request.executable = probeExecutablePath();
  request.arguments = {"applications",
                       "--max-files",
                       std::to_string(limits.maxFiles),
                       "--max-file-bytes",
                       std::to_string(limits.maxFileBytes),
                       "--max-identifier-bytes",
                       std::to_string(limits.maxIdentifierBytes),
                       "--max-version-bytes",
                       std::to_string(limits.maxVersionBytes),
                       "--"};
  for (const fs::path& directory : metainfoDirectories) request.arguments.push_back(directory);
  request.environment = probeEnvironment({});
  request.maxOutputBytes = installedApplicationsJsonMaxBytes(limits);
  // Thousands of metainfo files take a while to parse on a slow device.
  request.timeout = std::chrono::seconds(60);
  ProbeOutcome outcome = runProbe(request);
  std::string problem = std::move(outcome.failure);
  if (outcome.output) {
    if (auto list = installedApplicationsFromJson(*outcome.output, limits, &problem)) return list;
    problem = std::string("printed a list that ").append(problem);
  }
  appsLog().error("could not read the installed applications: %@ %@", request.executable.string(),
                  problem);
  return std::nullopt;
}

}  // namespace orvex
