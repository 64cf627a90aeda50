#include "orvexd/platform/sha256_hex.h"

#include <openssl/evp.h>

#include <memory>

#include "orvexd/base/c_handle.h"

namespace orvex {

std::string sha256Hex(std::string_view text) {
  std::unique_ptr<EVP_MD_CTX, CFree<&EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), text.data(), text.size()) != 1 ||
      EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
    return {};
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xf];
  }
  return hex;
}

}  // namespace orvex
