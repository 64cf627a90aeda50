// Upload bodies made and read back independently of the daemon's own code: raw deflate (no zlib
// header or trailer) both ways, and the SHA-512 the upload's digest is compared with.
#pragma once

#include <openssl/sha.h>
#include <zlib.h>

#include <string>
#include <string_view>

namespace orvex::testing {

// `text` as raw deflate, the way the daemon sends an upload body.
inline std::string rawDeflate(std::string_view text) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
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

// `text` as a zlib stream: raw deflate inside the header and trailer an upload body goes without.
inline std::string zlibWrapped(std::string_view text) {
  std::string out(compressBound(text.size()), '\0');
  uLongf size = out.size();
  compress(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(text.data()),
           text.size());
  out.resize(size);
  return out;
}

// The text raw-deflated `body` inflates to; "<corrupt>" when it does not inflate to its end.
inline std::string inflateRaw(std::string_view body) {
  z_stream stream{};
  if (inflateInit2(&stream, -15) != Z_OK) return "<corrupt>";
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  stream.avail_in = static_cast<uInt>(body.size());
  std::string text;
  int result = Z_OK;
  while (result == Z_OK) {
    char chunk[16384];
    stream.next_out = reinterpret_cast<Bytef*>(chunk);
    stream.avail_out = sizeof(chunk);
    result = inflate(&stream, Z_NO_FLUSH);
    text.append(chunk, sizeof(chunk) - stream.avail_out);
  }
  inflateEnd(&stream);
  return result == Z_STREAM_END ? text : "<corrupt>";
}

inline std::string sha512Hex(std::string_view text) {
  unsigned char digest[SHA512_DIGEST_LENGTH];
  SHA512(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char byte : digest) hex += {kHex[byte >> 4], kHex[byte & 0xf]};
  return hex;
}

}  // namespace orvex::testing
