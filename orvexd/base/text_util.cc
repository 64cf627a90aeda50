#include "orvexd/base/text_util.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace orvex {

std::string formatOneDecimal(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

bool containsControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::string asciiLowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

uint64_t utf16Length(std::string_view text) {
  uint64_t units = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t length = utf8SequenceLength(text, at);
    units += length == 4 ? 2 : 1;
    at += length == 0 ? 1 : length;
  }
  return units;
}

std::string_view trimWhitespace(std::string_view text) {
  constexpr std::string_view kSpace = " \t\n\r\f\v";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

std::strong_ordering compareNumeric(std::string_view a, std::string_view b) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  size_t i = 0;
  size_t j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      // Compare the runs without their leading zeros: the longer is greater, else the first
      // differing digit decides.
      while (i < a.size() && a[i] == '0') ++i;
      while (j < b.size() && b[j] == '0') ++j;
      const size_t runA = std::find_if_not(a.begin() + i, a.end(), isDigit) - (a.begin() + i);
      const size_t runB = std::find_if_not(b.begin() + j, b.end(), isDigit) - (b.begin() + j);
      if (runA != runB) return runA <=> runB;
      if (const int order = a.substr(i, runA).compare(b.substr(j, runB)); order != 0) {
        return order <=> 0;
      }
      i += runA;
      j += runB;
      continue;
    }
    if (a[i] != b[j]) {
      return static_cast<unsigned char>(a[i]) <=> static_cast<unsigned char>(b[j]);
    }
    ++i;
    ++j;
  }
  return (a.size() - i) <=> (b.size() - j);
}

void appendUtf8(std::string& out, char32_t codePoint) {
  if (codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) codePoint = 0xFFFD;
  if (codePoint < 0x80) {
    out.push_back(static_cast<char>(codePoint));
  } else if (codePoint < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
    out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
  } else if (codePoint < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
    out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
    out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
  }
}

std::string toValidUtf8(std::string_view text) {
  if (isValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t at = 0; at < text.size();) {
    if (const std::size_t length = utf8SequenceLength(text, at); length > 0) {
      out.append(text.substr(at, length));
      at += length;
    } else {
      appendUtf8(out, U'\uFFFD');
      ++at;
    }
  }
  return out;
}

std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
  if (at >= text.size()) return 0;
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return 1;
  std::size_t length;
  char32_t codePoint;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() - at < length) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[at + k]);
    if ((next & 0xC0) != 0x80) return 0;
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF.
  if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000) ||
      (codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint > 0x10FFFF) {
    return 0;
  }
  return length;
}

bool isValidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t length = utf8SequenceLength(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

namespace {
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool isBase64Space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
}  // namespace

std::string encodeBase64(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += kBase64Alphabet[(group >> 6) & 0x3F];
    out += kBase64Alphabet[group & 0x3F];
  }
  if (const std::size_t rest = bytes.size() - i; rest > 0) {
    const uint32_t group = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += rest == 2 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text) {
  std::vector<uint8_t> out;
  uint32_t group = 0;
  int count = 0;
  bool padded = false;
  for (const char c : text) {
    if (isBase64Space(c)) continue;
    if (c == '=') {
      padded = true;
      continue;
    }
    const char* found = std::strchr(kBase64Alphabet, c);
    if (padded || c == '\0' || found == nullptr) return std::nullopt;
    group = (group << 6) | static_cast<uint32_t>(found - kBase64Alphabet);
    if (++count == 4) {
      out.push_back(static_cast<uint8_t>(group >> 16));
      out.push_back(static_cast<uint8_t>(group >> 8));
      out.push_back(static_cast<uint8_t>(group));
      group = 0;
      count = 0;
    }
  }
  if (count == 1) return std::nullopt;
  if (count == 2) out.push_back(static_cast<uint8_t>(group >> 4));
  if (count == 3) {
    out.push_back(static_cast<uint8_t>(group >> 10));
    out.push_back(static_cast<uint8_t>(group >> 2));
  }
  return out;
}

int64_t saturatingInt64(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (value < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

uint64_t saturatingUint64(double value) {
  if (std::isnan(value) || value <= 0) return 0;
  if (value >= 0x1p64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(value);
}

std::error_code writeAll(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return {errno, std::generic_category()};
    }
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return {};
}

}  // namespace orvex
