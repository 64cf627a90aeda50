// The installed-app signature: which of the apps on the server's whitelist are installed, as a
// bitmap (one bit per whitelisted app, at the app's "encoding_id"), run-length encoded when that
// is smaller, wrapped with the whitelist's version and a CRC-32 and written in base64.
//
// Signature bytes, multi-byte fields big-endian:
//   0  4  CRC-32 (zlib, initial value 0) of bytes 4 to the end
//   4  1  second-to-last version byte; bit 7 set when the payload is run-length encoded
//   5  1  last version byte
//   6  2  bitmap length in bytes
//   8  n  payload: bytes 12-15 of the bitmap's MD5, then the run-length form or the bitmap
// Run-length form: run count R (2 bytes), R run lengths (bits - 1), ceil(R / 8) bytes of run
// values (most significant bit first, 1 for a run of set bits).
//
// Pure functions without state: any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

// A whitelist file larger than this is refused before it is parsed.
inline constexpr std::size_t kAppWhitelistMaxBytes = 16 * 1024 * 1024;
// The largest bit index taken: the bitmap's length travels in two bytes, so it can reach at most
// 65535 bytes (the bit at 65535 * 8 lands in the spare byte past that length). Larger indices
// are skipped, so a hostile file cannot make a huge bitmap either.
inline constexpr uint32_t kAppWhitelistMaxEncodingId = 65535u * 8u;

// A parsed whitelist: its version (hexadecimal text) and each app's bit index.
struct AppWhitelist {
  std::string version;
  std::map<std::string, uint32_t, std::less<>> encodingIds;
  // Apps left out because their entry has no usable "encoding_id" (missing, negative, not an
  // integer, above kAppWhitelistMaxEncodingId).
  std::size_t skippedEntries = 0;
};

// Reads a whitelist file: an object with "apps" (the inner document as a string), "compression"
// "RLE" and "encoding" "bitmap"; the inner document holds "version" (a string) and "apps" (bundle
// identifier -> array of entries, the last one an object with "encoding_id"). None when any of
// that is missing or wrong, with the reason in `problem`.
std::optional<AppWhitelist> processWhitelist(std::string_view text, std::string* problem = nullptr);

// The bit indices of the installed apps on the whitelist, ascending, without repeats.
std::vector<uint32_t> whitelistedIndices(const AppWhitelist& whitelist,
                                         const std::vector<std::string>& installedIdentifiers);

// ceil(largest index / 8) bytes with bit (0x80 >> i % 8) of byte i / 8 set for each index, plus
// one spare byte for the largest index's bit when it is a multiple of 8 (that bit falls just past
// the length; only `length` bytes count). Empty for no indices.
struct AppBitmap {
  std::vector<uint8_t> bytes;  // length + 1 bytes when not empty
  std::size_t length = 0;
  std::span<const uint8_t> view() const { return {bytes.data(), length}; }
};
AppBitmap makeBitmap(const std::vector<uint32_t>& sortedIndices);

// The encoder's output: the 4-byte digest prefix, then the run-length form (`encoded`) or the
// bitmap as it is.
struct EncodedBitmap {
  std::vector<uint8_t> payload;
  bool encoded = false;
};
// Appends one run of `bits` bits (1 to 256) to the run lengths and values.
void encodeRun(std::size_t bits, bool value, std::vector<uint8_t>& lengths,
               std::vector<bool>& values);
EncodedBitmap rle_compress(std::span<const uint8_t> bitmap);
// The bitmap of `length` bytes back from a payload; none when the run-length form is malformed or
// its runs overrun the length.
std::optional<std::vector<uint8_t>> rle_expand(std::span<const uint8_t> payload, bool encoded,
                                               std::size_t length);

// The signature's bytes (table above) and their base64 form. None for a version of odd length,
// one that is not hexadecimal or one shorter than two bytes. (A bitmap of length 0, for index 0
// alone, still gives a signature: its bit lies in the spare byte.)
std::optional<std::vector<uint8_t>> makeSignatureBytes(std::string_view version,
                                                       std::span<const uint8_t> bitmap);
std::optional<std::string> makeSignature(std::string_view version, std::span<const uint8_t> bitmap);

}  // namespace orvex
