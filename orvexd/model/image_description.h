// An image as search answers name it and clients ask the daemon for it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvex {

// One image: its absolute URL, or the identifier the bag turns into one (or both), and the
// image's own bytes when the description carries them.
struct ImageDescription {
  std::optional<std::string> url;  // "url"
  std::optional<std::string> id;   // "id"
  std::vector<uint8_t> data;       // "data"
};

}  // namespace orvex
