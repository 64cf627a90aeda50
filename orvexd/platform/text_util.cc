#include "orvexd/platform/text_util.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>

namespace orvex {

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
