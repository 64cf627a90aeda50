// Feeds arbitrary bytes to the installed-app signature: read as a whitelist file, with every
// other whitelisted app (and a few fixed names) installed, and, as they are, as a bitmap. Every
// signature must carry a correct CRC and decode back to its bitmap.
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "orvexd/network/app_whitelist_signature.h"

namespace {

using orvex::fuzz::check;

// Checks the CRC and that the payload expands back to `bitmap`.
void checkSignature(std::string_view version, std::span<const uint8_t> bitmap) {
  const auto bytes = orvex::makeSignatureBytes(version, bitmap);
  if (!bytes) return;
  check(bytes->size() >= 12);
  const uLong crc = crc32(0L, bytes->data() + 4, static_cast<uInt>(bytes->size() - 4));
  check((uLong{(*bytes)[0]} << 24 | uLong{(*bytes)[1]} << 16 | uLong{(*bytes)[2]} << 8 |
         uLong{(*bytes)[3]}) == crc);
  const std::size_t length = std::size_t{(*bytes)[6]} << 8 | (*bytes)[7];
  check(length == bitmap.size());
  const bool encoded = ((*bytes)[4] & 0x80) != 0;
  const auto expanded = orvex::rle_expand(std::span(*bytes).subspan(8), encoded, length);
  check(expanded && std::equal(expanded->begin(), expanded->end(), bitmap.begin(), bitmap.end()));
  check(orvex::makeSignature(version, bitmap).has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto whitelist = orvex::processWhitelist(text)) {
    std::vector<std::string> installed{"org.example.App", "", "com.zelmor.Notes"};
    bool take = true;
    for (const auto& entry : whitelist->encodingIds) {
      if (take) installed.push_back(entry.first);
      take = !take;
    }
    const auto indices = orvex::whitelistedIndices(*whitelist, installed);
    if (!indices.empty()) {
      check(indices.back() <= orvex::kAppWhitelistMaxEncodingId);
      const auto bitmap = orvex::makeBitmap(indices);
      checkSignature(whitelist->version, bitmap.view());
    }
  }
  checkSignature("0a0b", std::span(data, std::min<std::size_t>(size, 4096)));
  return 0;
}
