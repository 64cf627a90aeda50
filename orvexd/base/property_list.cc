#include "orvexd/base/property_list.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/plist_binary.h"
#include "orvexd/base/plist_xml.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

using std::chrono::days;
using std::chrono::microseconds;
using std::chrono::sys_days;

bool checkWritableString(std::string_view text, std::string_view what, std::string& why) {
  if (text.find('\0') != std::string_view::npos) {
    why = std::string(what) + " holds a NUL character";
    return false;
  }
  if (!isValidUtf8(text)) {
    why = std::string(what) + " is not valid UTF-8";
    return false;
  }
  return true;
}

// Whether `value` can be written as a document, looked at without recursion.
bool checkWritable(const PlistValue& root, std::string& why) {
  std::vector<std::pair<const PlistValue*, int>> pending{{&root, 0}};  // with containers around
  while (!pending.empty()) {
    // Named variables, not a structured binding: the lambda below uses the depth, and clang 14
    // cannot capture a binding.
    const PlistValue* const value = pending.back().first;
    const int depth = pending.back().second;
    pending.pop_back();
    const bool writable = value->visit([&](const auto& stored) -> bool {
      using T = std::decay_t<decltype(stored)>;
      if constexpr (std::is_same_v<T, std::string>) {
        return checkWritableString(stored, "a string", why);
      } else if constexpr (std::is_same_v<T, PlistDate>) {
        if (stored.isSupported()) return true;
        why = "a date lies outside the years 1 to 9999";
        return false;
      } else if constexpr (std::is_same_v<T, PlistArray> || std::is_same_v<T, PlistDictionary>) {
        if (depth + 1 > kPlistMaxDepth) {
          why = "the containers are nested too deeply";
          return false;
        }
        for (const auto& element : stored) {
          if constexpr (std::is_same_v<T, PlistArray>) {
            pending.emplace_back(&element, depth + 1);
          } else {
            if (!checkWritableString(element.first, "a dictionary key", why)) return false;
            pending.emplace_back(&element.second, depth + 1);
          }
        }
        return true;
      } else {
        return true;
      }
    });
    if (!writable) return false;
  }
  return true;
}

void appendDescription(const PlistValue& value, std::string& out) {
  value.visit([&](const auto& stored) {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, bool>) {
      out += stored ? "YES" : "NO";
    } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
      out += std::to_string(stored);
    } else if constexpr (std::is_same_v<T, double>) {
      out += formatPlistReal(stored);
    } else if constexpr (std::is_same_v<T, std::string>) {
      out += '"';
      for (const char c : stored) {
        if (c == '"' || c == '\\') {
          out += '\\';
          out += c;
        } else if (c == '\n') {
          out += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += c;
        }
      }
      out += '"';
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      out += stored.iso8601();
    } else if constexpr (std::is_same_v<T, PlistData>) {
      constexpr std::size_t kShown = 32;
      out += '<';
      for (std::size_t i = 0; i < std::min(stored.size(), kShown); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02x", stored[i]);
        out += hex;
      }
      if (stored.size() > kShown) out += "... " + std::to_string(stored.size()) + " bytes";
      out += '>';
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      out += '(';
      for (std::size_t i = 0; i < stored.size(); ++i) {
        if (i > 0) out += ", ";
        appendDescription(stored[i], out);
      }
      out += ')';
    } else {
      out += '{';
      bool first = true;
      for (const auto& [key, element] : stored) {
        if (!first) out += "; ";
        first = false;
        out += key + " = ";
        appendDescription(element, out);
      }
      out += '}';
    }
  });
}

}  // namespace

std::string formatPlistReal(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

// ---- PlistDate -----------------------------------------------------------------------------

bool PlistDate::isSupported() const { return time >= kFirst && time <= kLast; }

std::string PlistDate::iso8601() const {
  const auto day = std::chrono::floor<days>(time);
  const std::chrono::year_month_day ymd(day);
  const std::chrono::hh_mm_ss clock(time - day);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d",
                static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  std::string text(buffer);
  if (const auto micros = clock.subseconds().count(); micros != 0) {
    std::snprintf(buffer, sizeof buffer, ".%06d", static_cast<int>(micros));
    std::string fraction(buffer);
    while (fraction.back() == '0') fraction.pop_back();
    text += fraction;
  }
  return text + 'Z';
}

std::optional<PlistDate> PlistDate::fromIso8601(std::string_view text) {
  // YYYY-MM-DDTHH:MM:SS, then an optional fraction, then Z.
  constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:dd";
  if (text.size() < kPattern.size() + 1 || text.back() != 'Z') return std::nullopt;
  for (std::size_t i = 0; i < kPattern.size(); ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (kPattern[i] == 'd' ? !digit : text[i] != kPattern[i]) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    for (std::size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  std::int64_t micros = 0;
  const std::string_view fraction = text.substr(kPattern.size(), text.size() - kPattern.size() - 1);
  if (!fraction.empty()) {
    if (fraction.size() < 2 || fraction[0] != '.') return std::nullopt;
    std::int64_t scale = 100'000;
    for (const char c : fraction.substr(1)) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
      micros += (c - '0') * scale;
      scale /= 10;
    }
  }
  const std::chrono::year_month_day ymd{std::chrono::year{number(0, 4)},
                                        std::chrono::month{static_cast<unsigned>(number(5, 2))},
                                        std::chrono::day{static_cast<unsigned>(number(8, 2))}};
  const int hours = number(11, 2), minutes = number(14, 2), seconds = number(17, 2);
  if (!ymd.ok() || number(0, 4) == 0 || hours > 23 || minutes > 59 || seconds > 59) {
    return std::nullopt;
  }
  return PlistDate(TimePoint{sys_days{ymd}} + std::chrono::hours{hours} +
                   std::chrono::minutes{minutes} + std::chrono::seconds{seconds} +
                   microseconds{micros});
}

// ---- PlistValue ----------------------------------------------------------------------------

PlistValue::PlistValue() : storage_(PlistDictionary{}) {}

PlistValue::PlistValue(UnsignedTag, std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    storage_ = static_cast<std::int64_t>(value);
  } else {
    storage_ = value;
  }
}

PlistType PlistValue::type() const {
  static constexpr PlistType kTypes[] = {
      PlistType::kBoolean, PlistType::kInteger, PlistType::kInteger,
      PlistType::kReal,    PlistType::kString,  PlistType::kDate,
      PlistType::kData,    PlistType::kArray,   PlistType::kDictionary};
  static_assert(std::size(kTypes) == std::variant_size_v<decltype(storage_)>);
  return kTypes[storage_.index()];
}

std::optional<bool> PlistValue::asBool() const {
  if (const auto* value = std::get_if<bool>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::int64_t> PlistValue::asInteger() const {
  if (const auto* value = std::get_if<std::int64_t>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::uint64_t> PlistValue::asUnsignedInteger() const {
  if (const auto* value = std::get_if<std::uint64_t>(&storage_)) return *value;
  if (const auto* value = std::get_if<std::int64_t>(&storage_); value != nullptr && *value >= 0) {
    return static_cast<std::uint64_t>(*value);
  }
  return std::nullopt;
}

std::optional<double> PlistValue::asDouble() const {
  if (const auto* value = std::get_if<double>(&storage_)) return *value;
  if (const auto* value = std::get_if<std::int64_t>(&storage_)) {
    return static_cast<double>(*value);
  }
  if (const auto* value = std::get_if<std::uint64_t>(&storage_)) {
    return static_cast<double>(*value);
  }
  return std::nullopt;
}

std::optional<PlistDate> PlistValue::asDate() const {
  if (const auto* value = std::get_if<PlistDate>(&storage_)) return *value;
  return std::nullopt;
}

const std::string* PlistValue::asString() const { return std::get_if<std::string>(&storage_); }
const PlistData* PlistValue::asData() const { return std::get_if<PlistData>(&storage_); }
const PlistArray* PlistValue::asArray() const { return std::get_if<PlistArray>(&storage_); }
PlistArray* PlistValue::asArray() { return std::get_if<PlistArray>(&storage_); }
const PlistDictionary* PlistValue::asDictionary() const {
  return std::get_if<PlistDictionary>(&storage_);
}
PlistDictionary* PlistValue::asDictionary() { return std::get_if<PlistDictionary>(&storage_); }

const PlistValue* PlistValue::find(std::string_view key) const {
  const PlistDictionary* dictionary = asDictionary();
  if (dictionary == nullptr) return nullptr;
  const auto found = dictionary->find(key);
  return found == dictionary->end() ? nullptr : &found->second;
}

std::string PlistValue::describe() const {
  std::string out;
  appendDescription(*this, out);
  return out;
}

bool PlistValue::isWritable(std::string* reason) const {
  std::string why;
  if (checkWritable(*this, why)) return true;
  if (reason != nullptr) *reason = why;
  return false;
}

PlistHandle PlistValue::toPlist(std::string* error) const {
  std::string why;
  if (!checkWritable(*this, why)) {
    if (error != nullptr) *error = why;
    return nullptr;
  }
  PlistHandle node = plistTreeFromValue(*this);
  if (node == nullptr && error != nullptr) *error = "libplist could not build the tree";
  return node;
}

std::optional<PlistValue> PlistValue::fromPlist(plist_t node, std::string* error) {
  std::string why;
  std::optional<PlistValue> value;
  if (node == nullptr) {
    why = "there is no node";
  } else {
    value = valueFromPlistTree(node, why);
  }
  if (!value && error != nullptr) *error = why;
  return value;
}
bool operator==(const PlistValue& a, const PlistValue& b) { return a.storage_ == b.storage_; }

// ---- Documents -----------------------------------------------------------------------------

namespace {

bool isBinaryDocument(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kBinarySignature = "bplist";
  return bytes.size() >= kBinarySignature.size() &&
         std::memcmp(bytes.data(), kBinarySignature.data(), kBinarySignature.size()) == 0;
}

}  // namespace

std::optional<PlistValue> parsePropertyList(std::span<const std::uint8_t> bytes,
                                            std::string* error) {
  std::string why;
  std::optional<PlistValue> value;
  if (bytes.empty()) {
    why = "the property list is empty";
  } else if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    why = "the property list is larger than 4 GiB";
  } else if (isBinaryDocument(bytes)) {
    value = readBinaryPlist(bytes, why);
  } else {
    value = readXmlPlist(bytes, why);
  }
  if (!value && error != nullptr) *error = why;
  return value;
}

PlistHandle parsePropertyListTree(std::span<const std::uint8_t> bytes, std::string* error) {
  std::string why;
  PlistHandle root;
  if (isBinaryDocument(bytes) && bytes.size() <= std::numeric_limits<std::uint32_t>::max()) {
    root = readBinaryPlistTree(bytes, why);
    // The same value checks as for PlistValue.
    if (root != nullptr && !valueFromPlistTree(root.get(), why)) root.reset();
  } else if (const auto value = parsePropertyList(bytes, &why)) {
    root = value->toPlist(&why);
  }
  if (root == nullptr && error != nullptr) *error = why;
  return root;
}

std::vector<std::uint8_t> serializePropertyList(const PlistValue& value, PlistFormat format,
                                                std::string* error) {
  std::string why;
  std::vector<std::uint8_t> document;
  if (checkWritable(value, why)) {
    document = format == PlistFormat::kXml ? writeXmlPlist(value) : writeBinaryPlist(value, why);
  }
  if (document.empty()) {
    OrvexLogForCategory(kOrvexLogGeneral).error("cannot write property list: %@", why);
    if (error != nullptr) *error = why;
  }
  return document;
}

}  // namespace orvex
