// The applications installed on the device, with identifier and version, from their AppStream
// metainfo: the files in "metainfo" (and the legacy "appdata") under each system data directory,
// and those of every deployed Flatpak application, system-wide and the user's.
//
// Flatpak exports only desktop files, icons and D-Bus services into exports/share, not metainfo;
// an application's metainfo lies in its deployment, <installation>/app/<id>/current/active/files/
// share/metainfo. Both places are read (exports/share/metainfo too, should a Flatpak export it).
//
// Only application-like components count: desktop, console and web applications. The bundle
// identifier is the component id; the bundle version is the newest release's version by
// AppStream's version comparison, none for a component without releases.
//
// Reading is bounded: at most `maxFiles` files in all, each at most `maxFileBytes`; a larger file
// and one that does not parse are skipped. The metainfo is parsed by the probe helper
// (orvexd-probe applications), not in the daemon: the parser and its libraries stay out of the
// daemon's memory, and a file that crashes it costs one failed scan. Plain functions: any thread
// may call them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orvex {

struct InstalledApplication {
  std::string bundleIdentifier;
  std::optional<std::string> bundleVersion;
  bool operator==(const InstalledApplication&) const = default;
};

// Where metainfo is looked for.
struct MetainfoRoots {
  std::vector<std::filesystem::path> dataDirectories;       // each + "/metainfo", "/appdata"
  std::vector<std::filesystem::path> flatpakInstallations;  // e.g. /var/lib/flatpak
  // $XDG_DATA_DIRS (default /usr/local/share:/usr/share), /var/lib/flatpak and
  // $XDG_DATA_HOME/flatpak (default ~/.local/share/flatpak).
  static MetainfoRoots fromEnvironment();
};

struct InstalledApplicationLimits {
  std::size_t maxFiles = 8192;
  std::size_t maxFileBytes = 1024 * 1024;
  std::size_t maxFlatpakApps = 4096;  // per installation
  // Longer identifiers and versions are no one's: the component counts as a skipped file.
  std::size_t maxIdentifierBytes = 255;
  std::size_t maxVersionBytes = 128;
};

// The directories that hold metainfo files now, and the ones to watch to learn that the set
// changed (the metainfo directories, each Flatpak installation's app directory, each deployed
// app's branch directory where "active" is swapped on update, and a data directory that has no
// metainfo directory yet).
struct MetainfoLocations {
  std::vector<std::filesystem::path> metainfoDirectories;
  std::vector<std::filesystem::path> watchedDirectories;
};
MetainfoLocations findMetainfoLocations(const MetainfoRoots& roots,
                                        const InstalledApplicationLimits& limits = {});

struct InstalledApplicationList {
  std::vector<InstalledApplication> applications;  // sorted by identifier, one per identifier
  std::size_t skippedFiles = 0;                    // too large, unreadable or malformed
};
// Reads the applications of every "*.xml" file in `metainfoDirectories` through the probe helper.
// None, with the reason logged, when the helper fails: the caller keeps what it knew rather than
// taking it for "nothing installed".
std::optional<InstalledApplicationList> scanInstalledApplications(
    const std::vector<std::filesystem::path>& metainfoDirectories,
    const InstalledApplicationLimits& limits = {});

}  // namespace orvex
