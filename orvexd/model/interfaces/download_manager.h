// The bag's data files kept on the device: which ones are known, their versions, and read access
// to their contents. OrvexDownloadManager is the implementation.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {

// One resource of the bag, by its key.
struct DownloadResource {
  std::string identifier;  // the bag key, e.g. "installed_app_whitelist"
  // The bag URL as requested, without any "key" query item.
  std::string url;
  // Where the last download ended up after redirects, when that differs from `url`.
  std::optional<std::string> redirectUrl;
};

// What FileHandleAndAttributesForResource tells besides the descriptor.
struct ResourceFileAttributes {
  uint64_t size = 0;
  int64_t modified = 0;  // seconds since 1970
  std::string url;       // the resource's URL (without "key")
};

class DownloadManager {
 public:
  virtual ~DownloadManager() = default;
  // The record of a resource key; none for an unknown key or one the bag does not name.
  // Synchronous; callable from any thread but the manager's own queue.
  virtual std::optional<DownloadResource> resourceForKey(const std::string& key) const = 0;
  // Each known resource's version (the "If-None-Match" it would send), by key.
  virtual std::map<std::string, std::string> resourceVersions() const = 0;
  // Opens a downloaded resource file read-only. Fails with a clear error for an unknown
  // identifier (a path-like one included) or a file that is not there.
  virtual std::optional<UniqueFd> fileHandleForResource(const std::string& identifier,
                                                        ResourceFileAttributes* attributes,
                                                        OrvexError* error) const = 0;
};

}  // namespace orvex
