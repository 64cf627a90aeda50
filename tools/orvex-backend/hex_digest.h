// Digests of byte strings as lower-case hexadecimal text.
#pragma once

#include <string>
#include <string_view>

namespace orvex::backend {

// The SHA-512 of `data`: 128 lower-case hexadecimal characters.
std::string sha512Hex(std::string_view data);

}  // namespace orvex::backend
