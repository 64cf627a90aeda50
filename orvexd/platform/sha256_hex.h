// SHA-256 digests as lower-case hexadecimal text, for file names and versions made from URLs.
#pragma once

#include <string>
#include <string_view>

namespace orvex {

// The SHA-256 of `text`: 64 lower-case hexadecimal characters; empty if the digest fails.
std::string sha256Hex(std::string_view text);

}  // namespace orvex
