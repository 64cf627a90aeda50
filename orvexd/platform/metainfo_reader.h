// The installed applications read from their AppStream metainfo (see installed_applications.h
// for what counts). Linked by the probe helper and the tools, never by the daemon.
#pragma once

#include <filesystem>
#include <vector>

#include "orvexd/platform/installed_applications.h"

namespace orvex {

// Reads every "*.xml" file in `metainfoDirectories`. One identifier found twice keeps the newer
// version. A component whose identifier or version is longer than the limits allow or holds a
// control character counts as a skipped file.
InstalledApplicationList readInstalledApplications(
    const std::vector<std::filesystem::path>& metainfoDirectories,
    const InstalledApplicationLimits& limits = {});

}  // namespace orvex
