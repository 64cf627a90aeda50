// The image files the /images route serves: PNG, SVG, JPEG, GIF and WebP files under one
// directory, by default the Adwaita icon theme.
//
// A file is served with its type from its extension, "Cache-Control: max-age=86400" and a strong
// ETag (a digest of its bytes); a request whose If-None-Match names that tag gets 304. Anything
// that is not a regular file of a known type, at most kMaxFileSize bytes, inside the directory
// gets 404: names with "..", absolute names, and names that symbolic links lead out of the
// directory. The directory and its files are read on every request, so a test may add files
// while the server runs. Safe to use from several threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "tools/orvex-backend/endpoint_registry.h"

namespace orvex::backend {

// Whether If-None-Match (a list of entity tags, or "*") names `tag`. The comparison is the weak
// one, as for this header, so W/"x" names "x".
bool namesTag(std::string_view list, std::string_view tag);

class ImageDirectory {
 public:
  static constexpr std::uintmax_t kMaxFileSize = std::uintmax_t{8} << 20;
  static constexpr std::string_view kCacheControl = "max-age=86400";

  explicit ImageDirectory(std::filesystem::path root) : root_(std::move(root)) {}

  // The answer to `request` for the file at `relative` (percent-decoded, below the route's
  // prefix).
  EndpointReply serve(std::string_view relative, const EndpointRequest& request) const;

 private:
  std::filesystem::path root_;
};

}  // namespace orvex::backend
