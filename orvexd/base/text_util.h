// Small text and number helpers shared by the parsers and formatters.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace orvex {

// `text` without leading and trailing ASCII white space (space, \t, \n, \r, \f, \v).
std::string_view trimWhitespace(std::string_view text);
// Whether `text` holds an ASCII control character (below 0x20, or DEL), which would end or split
// an HTTP header or a log line it went into.
bool containsControlCharacter(std::string_view text);
// `text` with the ASCII letters A-Z lower-cased; other bytes (UTF-8 included) unchanged.
std::string asciiLowercase(std::string_view text);
// The length of UTF-8 `text` in UTF-16 code units (characters beyond the BMP count twice); an
// invalid byte counts as one unit.
uint64_t utf16Length(std::string_view text);

// `value` with one decimal, as printf's "%.1f" writes it.
std::string formatOneDecimal(double value);

// Appends the UTF-8 encoding of `codePoint`; a surrogate or a value past U+10FFFF becomes U+FFFD.
void appendUtf8(std::string& out, char32_t codePoint);

// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view text);
// The length of the well-formed UTF-8 sequence that starts at `text[at]`, or 0 when the bytes
// there do not begin one.
std::size_t utf8SequenceLength(std::string_view text, std::size_t at);
// `text` with every byte that does not begin a well-formed UTF-8 sequence replaced by U+FFFD.
std::string toValidUtf8(std::string_view text);

// Standard base64 with padding.
std::string encodeBase64(std::span<const uint8_t> bytes);
// Reads standard base64; ASCII white space (space, \t, \n, \r) may stand anywhere and the
// padding is optional. Anything else gives nothing.
std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text);

// Conversions that saturate where a plain cast would be undefined; NaN gives 0. The unsigned
// form gives 0 for negative values.
int64_t saturatingInt64(double value);
uint64_t saturatingUint64(double value);

// Compares two strings as people read numbered names: runs of ASCII digits compare by their
// numeric value ("9" < "10", "v2" < "v10", "007" == "7"), everything else byte by byte.
std::strong_ordering compareNumeric(std::string_view a, std::string_view b);

// Writes all of `bytes` to `fd`, resuming after signals and short writes.
std::error_code writeAll(int fd, std::span<const uint8_t> bytes);
inline std::error_code writeAll(int fd, std::string_view text) {
  return writeAll(fd, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

}  // namespace orvex
