#include "tools/orvex-backend/hex_digest.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace orvex::backend {

std::string sha512Hex(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha512(), nullptr) != 1) {
    throw std::runtime_error("SHA-512 failed");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xf]);
  }
  return hex;
}

}  // namespace orvex::backend
