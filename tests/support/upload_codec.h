// The wire form of a feedback upload, made and read independently of the daemon's own code: the
// JSON as raw deflate (no zlib header or trailer) and its SHA-512 as lower-case hex.
#pragma once

#include <openssl/evp.h>
#include <zlib.h>

#include <optional>
#include <string>
#include <string_view>

namespace orvex::testing {

inline std::string rawDeflate(std::string_view text) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

// The inflated text, or nothing when `data` is not one complete raw deflate stream.
inline std::optional<std::string> rawInflate(std::string_view data) {
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return std::nullopt;
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  std::string out;
  int result = Z_OK;
  char chunk[16384];
  while (result == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(chunk);
    stream.avail_out = sizeof chunk;
    result = inflate(&stream, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - stream.avail_out);
  }
  const bool whole = result == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  return whole ? std::optional(out) : std::nullopt;
}

inline std::string sha512Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha512(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back("0123456789abcdef"[digest[i] >> 4]);
    hex.push_back("0123456789abcdef"[digest[i] & 0xf]);
  }
  return hex;
}

}  // namespace orvex::testing
