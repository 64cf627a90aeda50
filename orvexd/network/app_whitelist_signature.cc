#include "orvexd/network/app_whitelist_signature.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "orvexd/base/json_limits.h"

namespace orvex {

namespace {

constexpr std::size_t kMaxRunBits = 256;
constexpr std::size_t kDigestPrefixBytes = 4;
constexpr std::size_t kMaxRuns = 0xFFFF;  // the run count travels in two bytes

// Byte by byte: GCC 12 warns falsely (array-bounds) on vector::insert after a small assign.
void appendBytes(std::vector<uint8_t>& out, std::span<const uint8_t> bytes) {
  out.reserve(out.size() + bytes.size());
  for (uint8_t byte : bytes) out.push_back(byte);
}

void appendBigEndian16(std::vector<uint8_t>& out, std::size_t value) {
  out.push_back(static_cast<uint8_t>((value >> 8) & 0xFF));
  out.push_back(static_cast<uint8_t>(value & 0xFF));
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The version's bytes, two hex digits each; none for odd length or a non-hex digit.
std::optional<std::vector<uint8_t>> versionBytes(std::string_view version) {
  if (version.size() % 2 != 0) return std::nullopt;
  std::vector<uint8_t> bytes;
  bytes.reserve(version.size() / 2);
  for (std::size_t i = 0; i < version.size(); i += 2) {
    const int high = hexDigit(version[i]);
    const int low = hexDigit(version[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
  }
  return bytes;
}

std::array<uint8_t, kDigestPrefixBytes> digestPrefix(std::span<const uint8_t> bitmap) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  std::array<uint8_t, kDigestPrefixBytes> prefix{};
  if (EVP_Digest(bitmap.data(), bitmap.size(), digest.data(), &size, EVP_md5(), nullptr) == 1 &&
      size >= 16) {
    std::copy(digest.begin() + 12, digest.begin() + 16, prefix.begin());
  }
  return prefix;
}

// The bit index an entry names; none when it has no usable "encoding_id".
std::optional<uint32_t> encodingIdOf(const nlohmann::json& entries) {
  if (!entries.is_array() || entries.empty()) return std::nullopt;
  const nlohmann::json& last = entries.back();
  if (!last.is_object()) return std::nullopt;
  const auto id = last.find("encoding_id");
  if (id == last.end() || !id->is_number()) return std::nullopt;
  if (id->is_number_unsigned() || id->is_number_integer()) {
    if (id->is_number_integer() && id->get<int64_t>() < 0) return std::nullopt;
    const uint64_t value = id->get<uint64_t>();
    if (value > kAppWhitelistMaxEncodingId) return std::nullopt;
    return static_cast<uint32_t>(value);
  }
  const double value = id->get<double>();  // 12.0 is accepted, 12.5 is not
  if (!(value >= 0) || value > kAppWhitelistMaxEncodingId || std::floor(value) != value) {
    return std::nullopt;
  }
  return static_cast<uint32_t>(value);
}

std::nullopt_t refuse(std::string* problem, std::string text) {
  if (problem != nullptr) *problem = std::move(text);
  return std::nullopt;
}

}  // namespace

std::optional<AppWhitelist> processWhitelist(std::string_view text, std::string* problem) {
  const JsonLimits limits{kAppWhitelistMaxBytes, kJsonMaxDepth};
  std::string why;
  const nlohmann::json outer = parseJsonWithinLimits(text, limits, &why);
  if (outer.is_discarded()) return refuse(problem, std::string("the whitelist ").append(why));
  if (!outer.is_object()) return refuse(problem, "the whitelist is not an object");
  const auto compression = outer.find("compression");
  if (compression == outer.end() || *compression != "RLE") {
    return refuse(problem, "the whitelist's compression is not \"RLE\"");
  }
  const auto encoding = outer.find("encoding");
  if (encoding == outer.end() || *encoding != "bitmap") {
    return refuse(problem, "the whitelist's encoding is not \"bitmap\"");
  }
  const auto apps = outer.find("apps");
  if (apps == outer.end() || !apps->is_string()) {
    return refuse(problem, "the whitelist has no \"apps\" string");
  }
  const nlohmann::json inner =
      parseJsonWithinLimits(apps->get_ref<const std::string&>(), limits, &why);
  if (inner.is_discarded()) return refuse(problem, std::string("the inner whitelist ").append(why));
  if (!inner.is_object()) return refuse(problem, "the inner whitelist is not an object");
  const auto version = inner.find("version");
  if (version == inner.end() || !version->is_string()) {
    return refuse(problem, "the inner whitelist has no \"version\" string");
  }
  const auto table = inner.find("apps");
  if (table == inner.end() || !table->is_object()) {
    return refuse(problem, "the inner whitelist has no \"apps\" object");
  }

  AppWhitelist whitelist;
  whitelist.version = version->get<std::string>();
  for (const auto& [identifier, entries] : table->items()) {
    if (auto id = encodingIdOf(entries)) {
      whitelist.encodingIds.emplace(identifier, *id);
    } else {
      ++whitelist.skippedEntries;
    }
  }
  return whitelist;
}

std::vector<uint32_t> whitelistedIndices(const AppWhitelist& whitelist,
                                         const std::vector<std::string>& installedIdentifiers) {
  std::vector<uint32_t> indices;
  for (const std::string& identifier : installedIdentifiers) {
    const auto found = whitelist.encodingIds.find(identifier);
    if (found != whitelist.encodingIds.end()) indices.push_back(found->second);
  }
  std::sort(indices.begin(), indices.end());
  indices.erase(std::unique(indices.begin(), indices.end()), indices.end());
  return indices;
}

AppBitmap makeBitmap(const std::vector<uint32_t>& sortedIndices) {
  AppBitmap bitmap;
  if (sortedIndices.empty()) return bitmap;
  const uint32_t largest = sortedIndices.back();
  bitmap.length = (static_cast<std::size_t>(largest) + 7) / 8;
  bitmap.bytes.assign(bitmap.length + 1, 0);  // the spare byte takes a largest index of 8k
  for (uint32_t index : sortedIndices) {
    bitmap.bytes[index / 8] |= static_cast<uint8_t>(0x80u >> (index % 8));
  }
  return bitmap;
}

void encodeRun(std::size_t bits, bool value, std::vector<uint8_t>& lengths,
               std::vector<bool>& values) {
  lengths.push_back(static_cast<uint8_t>(bits - 1));
  values.push_back(value);
}

EncodedBitmap rle_compress(std::span<const uint8_t> bitmap) {
  const auto prefix = digestPrefix(bitmap);
  std::vector<uint8_t> lengths;
  std::vector<bool> values;
  const std::size_t totalBits = bitmap.size() * 8;
  std::size_t run = 0;
  bool runValue = false;
  for (std::size_t bit = 0; bit < totalBits; ++bit) {
    const bool value = (bitmap[bit / 8] & (0x80u >> (bit % 8))) != 0;
    if (run > 0 && (value != runValue || run == kMaxRunBits)) {
      encodeRun(run, runValue, lengths, values);
      run = 0;
    }
    runValue = value;
    ++run;
  }
  if (run > 0) encodeRun(run, runValue, lengths, values);

  EncodedBitmap out;
  appendBytes(out.payload, prefix);
  const std::size_t runs = lengths.size();
  const std::size_t valueBytes = (runs + 7) / 8;
  // The run-length form is used only when it is smaller than the bitmap.
  if (runs > kMaxRuns || runs + valueBytes + 2 >= bitmap.size()) {
    appendBytes(out.payload, bitmap);
    return out;
  }
  out.encoded = true;
  appendBigEndian16(out.payload, runs);
  appendBytes(out.payload, lengths);
  const std::size_t valuesStart = out.payload.size();
  out.payload.resize(valuesStart + valueBytes, 0);
  for (std::size_t i = 0; i < runs; ++i) {
    if (values[i]) out.payload[valuesStart + i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8));
  }
  return out;
}

std::optional<std::vector<uint8_t>> rle_expand(std::span<const uint8_t> payload, bool encoded,
                                               std::size_t length) {
  if (payload.size() < kDigestPrefixBytes) return std::nullopt;
  const auto body = payload.subspan(kDigestPrefixBytes);
  if (!encoded) {
    if (body.size() != length) return std::nullopt;
    return std::vector<uint8_t>(body.begin(), body.end());
  }
  if (body.size() < 2) return std::nullopt;
  const std::size_t runs = (std::size_t{body[0]} << 8) | body[1];
  if (runs + runs / 8 + (runs % 8 != 0 ? 1 : 0) + 2 != body.size()) return std::nullopt;
  std::vector<uint8_t> out(length, 0);
  const std::size_t totalBits = length * 8;
  std::size_t bit = 0;
  for (std::size_t i = 0; i < runs; ++i) {
    const std::size_t bits = std::size_t{body[2 + i]} + 1;
    const bool value = (body[2 + runs + i / 8] & (0x80u >> (i % 8))) != 0;
    if (bits > totalBits - bit) return std::nullopt;
    if (value) {
      for (std::size_t b = bit; b < bit + bits; ++b) {
        out[b / 8] |= static_cast<uint8_t>(0x80u >> (b % 8));
      }
    }
    bit += bits;
  }
  return out;
}

std::optional<std::vector<uint8_t>> makeSignatureBytes(std::string_view version,
                                                       std::span<const uint8_t> bitmap) {
  const auto versionData = versionBytes(version);
  if (!versionData || versionData->size() < 2 || bitmap.size() > 0xFFFF) return std::nullopt;
  const EncodedBitmap encoded = rle_compress(bitmap);
  std::vector<uint8_t> bytes(4, 0);  // the CRC, filled in last
  const uint8_t high = (*versionData)[versionData->size() - 2];
  bytes.push_back(static_cast<uint8_t>((high & 0x7F) | (encoded.encoded ? 0x80 : 0x00)));
  bytes.push_back(versionData->back());
  appendBigEndian16(bytes, bitmap.size());
  appendBytes(bytes, encoded.payload);
  const uLong crc = crc32(0L, bytes.data() + 4, static_cast<uInt>(bytes.size() - 4));
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>((crc >> (24 - 8 * i)) & 0xFF);
  return bytes;
}

std::optional<std::string> makeSignature(std::string_view version,
                                         std::span<const uint8_t> bitmap) {
  const auto bytes = makeSignatureBytes(version, bitmap);
  if (!bytes) return std::nullopt;
  std::string text(4 * ((bytes->size() + 2) / 3), '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes->data(),
                                      static_cast<int>(bytes->size()));
  text.resize(written > 0 ? static_cast<std::size_t>(written) : 0);
  return text;
}

}  // namespace orvex
