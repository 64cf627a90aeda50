// The installed-app whitelist the reference back-end publishes: every application whose AppStream
// metainfo is on the machine it runs on, each with a bit index ("encoding_id").
//
// The document is the outer object {"apps": <inner document as a string>, "compression": "RLE",
// "encoding": "bitmap"}; the inner one is {"version": <hex>, "apps": {<component id>:
// [{"encoding_id": n}]}}. Indices are given from 1 in the order of the component ids (index 0
// would make an empty bitmap), so the same applications always give the same document; the
// version is the first four bytes of the SHA-512 of the id list, in hexadecimal, so it changes
// exactly when the list does.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "orvexd/platform/installed_applications.h"

namespace orvex::backend {

// From the metainfo files in `metainfoDirectories` (tests give a temporary one).
std::string buildAppWhitelist(const std::vector<std::filesystem::path>& metainfoDirectories);
// For `applications`, sorted by identifier.
std::string buildAppWhitelist(const std::vector<InstalledApplication>& applications);
// The applications whose metainfo is on this machine (system and Flatpak), sorted by identifier.
std::vector<InstalledApplication> applicationsOnThisMachine();

}  // namespace orvex::backend
