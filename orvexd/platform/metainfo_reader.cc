// Reads AppStream metainfo through libappstream. Only the probe helper (tools/orvexd-probe) and
// the tools link this: the daemon asks the helper, so that AppStream and the GLib stack it brings
// are never mapped into the long-lived process, and a metainfo file that trips the parser cannot
// take the daemon down.
#include "orvexd/platform/metainfo_reader.h"

#include <appstream.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string_view>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {

namespace fs = std::filesystem;

namespace {

const OrvexLog& appsLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

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

// Within the length limits and free of control characters, so that the list's JSON stays within
// a size the daemon can bound.
bool isUsable(const InstalledApplication& application, const InstalledApplicationLimits& limits) {
  const auto plain = [](std::string_view text, std::size_t maxBytes) {
    return text.size() <= maxBytes && std::none_of(text.begin(), text.end(), [](char c) {
             return static_cast<unsigned char>(c) < 0x20;
           });
  };
  return plain(application.bundleIdentifier, limits.maxIdentifierBytes) &&
         plain(application.bundleVersion.value_or(""), limits.maxVersionBytes);
}

}  // namespace

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
      if (application && !isUsable(*application, limits)) malformed = true;
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
