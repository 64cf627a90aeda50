#include "orvexd/platform/installed_applications.h"

#include <appstream.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>
#include <system_error>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/unique_fd.h"

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

bool isApplicationKind(AsComponentKind kind) {
  return kind == AS_COMPONENT_KIND_DESKTOP_APP || kind == AS_COMPONENT_KIND_CONSOLE_APP ||
         kind == AS_COMPONENT_KIND_WEB_APP;
}

// The whole file if it is a regular file of at most `maxBytes`.
std::optional<std::string> readBounded(const fs::path& path, std::size_t maxBytes) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::size_t>(status.st_size) > maxBytes) {
    return std::nullopt;
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t got = ::read(fd.get(), text.data() + done, text.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  text.resize(done);
  return text;
}

// The newest release's version, by AppStream's comparison.
std::optional<std::string> newestVersion(AsComponent* component) {
  GPtrArray* releases = as_component_get_releases(component);
  std::optional<std::string> newest;
  for (guint i = 0; releases != nullptr && i < releases->len; ++i) {
    const gchar* version = as_release_get_version(AS_RELEASE(g_ptr_array_index(releases, i)));
    if (version == nullptr || *version == '\0') continue;
    if (!newest || as_vercmp_simple(version, newest->c_str()) > 0) newest = version;
  }
  return newest;
}

using Metadata = CHandle<AsMetadata, &g_object_unref>;
using Error = CHandle<GError, &g_error_free>;

// The application a metainfo text describes; none for another kind of component. Sets
// `malformed` when the text does not parse.
std::optional<InstalledApplication> parseMetainfo(const std::string& text, bool& malformed) {
  Metadata metadata(as_metadata_new());
  GError* rawError = nullptr;
  const gboolean parsed =
      as_metadata_parse(metadata.get(), text.c_str(), AS_FORMAT_KIND_XML, &rawError);
  Error error(rawError);
  AsComponent* component = parsed ? as_metadata_get_component(metadata.get()) : nullptr;
  const gchar* id = component != nullptr ? as_component_get_id(component) : nullptr;
  if (id == nullptr || *id == '\0') {
    malformed = true;
    return std::nullopt;
  }
  if (!isApplicationKind(as_component_get_kind(component))) return std::nullopt;
  return InstalledApplication{id, newestVersion(component)};
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

InstalledApplicationList readInstalledApplications(const std::vector<fs::path>& metainfoDirectories,
                                                   const InstalledApplicationLimits& limits) {
  InstalledApplicationList list;
  std::map<std::string, std::optional<std::string>> found;
  std::size_t files = 0;
  for (const fs::path& directory : metainfoDirectories) {
    std::error_code error;
    std::vector<fs::path> names;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
      if (it->path().extension() == ".xml") names.push_back(it->path());
    }
    std::sort(names.begin(), names.end());  // the same files give the same outcome
    for (const fs::path& file : names) {
      if (++files > limits.maxFiles) {
        appsLog().error("more than %zu metainfo files, ignoring the rest", limits.maxFiles);
        list.skippedFiles += 1;
        break;
      }
      const auto text = readBounded(file, limits.maxFileBytes);
      bool malformed = !text.has_value();
      const auto application = text ? parseMetainfo(*text, malformed) : std::nullopt;
      if (malformed) {
        appsLog().debug("skipping metainfo file %@", file.string());
        ++list.skippedFiles;
        continue;
      }
      if (!application) continue;
      auto [slot, inserted] =
          found.try_emplace(application->bundleIdentifier, application->bundleVersion);
      const auto& version = application->bundleVersion;
      if (!inserted && version &&
          (!slot->second || as_vercmp_simple(version->c_str(), slot->second->c_str()) > 0)) {
        slot->second = version;
      }
    }
    if (files > limits.maxFiles) break;
  }
  for (auto& [identifier, version] : found) {
    list.applications.push_back({identifier, std::move(version)});
  }
  return list;
}

}  // namespace orvex
