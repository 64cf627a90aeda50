// Property lists: the value type, and reading and writing them as XML or binary documents.
// The codecs live in plist_binary.h (libplist) and plist_xml.h (expat); the functions at the end
// of this file tell the formats apart and pick one.
//
// Integers. libplist 2.2 keeps every integer as a 64-bit pattern and writes it as a signed
// number, except for numbers it has read above INT64_MAX, which it writes unsigned again. So
// signed 64-bit values, negative ones included, are the normal integers here, and an unsigned
// value above INT64_MAX is kept as the one "unsigned" flavour of integer, written as such in
// both formats. PlistValue normalises: an unsigned value that fits in int64_t is stored as a
// signed integer, so equal numbers compare equal.
//
// Dates. A PlistDate is a system_clock time point at microsecond precision. Supported are
// 0001-01-01T00:00:00Z to 9999-12-31T23:59:59.999999Z (what the XML date form can spell);
// documents holding dates outside that range are rejected, and such values are not written.
// XML dates are exact to the microsecond; binary ones as exact as a double of seconds since 2001
// allows (see plist_binary.h).
//
// Strings are UTF-8 without NUL characters; others are rejected when written, because
// neither format can hold them faithfully. Documents nested deeper than kPlistMaxDepth are
// rejected, and no value deeper than that is written.
#pragma once

#include <plist/plist.h>

#include <chrono>
#include <compare>
#include <concepts>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "orvexd/base/c_handle.h"

namespace orvex {

using PlistFree = CFree<&plist_free>;
using PlistHandle = std::unique_ptr<void, PlistFree>;

// Containers deeper than this are refused when reading and writing.
inline constexpr int kPlistMaxDepth = 512;

class PlistValue;
using PlistData = std::vector<std::uint8_t>;
using PlistArray = std::vector<PlistValue>;
using PlistDictionary = std::map<std::string, PlistValue, std::less<>>;

struct PlistDate {
  using TimePoint = std::chrono::sys_time<std::chrono::microseconds>;
  // The supported range (see above).
  static constexpr TimePoint kFirst{std::chrono::sys_days{std::chrono::year{1} / 1 / 1}};
  static constexpr TimePoint kLast{std::chrono::sys_days{std::chrono::year{10000} / 1 / 1} -
                                   std::chrono::microseconds{1}};

  PlistDate() = default;
  // Keeps the microseconds; finer parts are dropped (rounded towards the past).
  explicit PlistDate(std::chrono::system_clock::time_point t)
      : time(std::chrono::floor<std::chrono::microseconds>(t)) {}
  explicit PlistDate(TimePoint t) : time(t) {}

  std::chrono::system_clock::time_point timePoint() const {
    return std::chrono::time_point_cast<std::chrono::system_clock::duration>(time);
  }
  // Whether the date lies in the supported range (see above).
  bool isSupported() const;
  // ISO 8601 in UTC, with as many fractional digits as needed: "2001-01-01T00:00:00.25Z".
  std::string iso8601() const;
  // Reads the form iso8601() writes ("YYYY-MM-DDTHH:MM:SS[.fraction]Z"); digits below the
  // microsecond are dropped.
  static std::optional<PlistDate> fromIso8601(std::string_view text);

  friend bool operator==(const PlistDate&, const PlistDate&) = default;
  friend auto operator<=>(const PlistDate&, const PlistDate&) = default;

  TimePoint time{};
};

enum class PlistType { kBoolean, kInteger, kReal, kString, kDate, kData, kArray, kDictionary };
enum class PlistFormat { kXml, kBinary };

class PlistValue {
 public:
  // An empty dictionary.
  PlistValue();
  PlistValue(bool value) : storage_(value) {}
  template <std::signed_integral T>
  PlistValue(T value) : storage_(static_cast<std::int64_t>(value)) {}
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) PlistValue(T value)
      : PlistValue(UnsignedTag{}, static_cast<std::uint64_t>(value)) {}
  template <std::floating_point T>
  PlistValue(T value) : storage_(static_cast<double>(value)) {}
  PlistValue(const char* value) : storage_(std::string(value)) {}
  PlistValue(std::string_view value) : storage_(std::string(value)) {}
  PlistValue(std::string value) : storage_(std::move(value)) {}
  PlistValue(PlistDate value) : storage_(value) {}
  PlistValue(PlistData value) : storage_(std::move(value)) {}
  PlistValue(PlistArray value) : storage_(std::move(value)) {}
  PlistValue(PlistDictionary value) : storage_(std::move(value)) {}

  PlistType type() const;
  // True for the integers above INT64_MAX, which only asUnsignedInteger() returns.
  bool isUnsignedInteger() const { return std::holds_alternative<std::uint64_t>(storage_); }

  std::optional<bool> asBool() const;
  // Integers that fit in int64_t.
  std::optional<std::int64_t> asInteger() const;
  // Integers that are not negative.
  std::optional<std::uint64_t> asUnsignedInteger() const;
  // Reals, and integers converted to double.
  std::optional<double> asDouble() const;
  std::optional<PlistDate> asDate() const;
  // Null when the value has another type. The pointers live as long as the value is unchanged.
  const std::string* asString() const;
  const PlistData* asData() const;
  const PlistArray* asArray() const;
  PlistArray* asArray();
  const PlistDictionary* asDictionary() const;
  PlistDictionary* asDictionary();
  // The value stored under `key` when this is a dictionary holding it, else null.
  const PlistValue* find(std::string_view key) const;

  // Calls `visitor` with the stored alternative (bool, std::int64_t, std::uint64_t, double,
  // std::string, PlistDate, PlistData, PlistArray or PlistDictionary).
  template <typename Visitor>
  decltype(auto) visit(Visitor&& visitor) const {
    return std::visit(std::forward<Visitor>(visitor), storage_);
  }

  // A one-line rendering for logs, e.g. {count = 3; name = "x"; when = 2001-01-01T00:00:00Z}.
  std::string describe() const;

  // Whether the value can be written as a document (see the top of this file); when it cannot,
  // `reason` tells why.
  bool isWritable(std::string* reason = nullptr) const;

  // A new libplist tree holding this value; null (with a reason in `error`) when the value
  // cannot be written (see the top of this file).
  PlistHandle toPlist(std::string* error = nullptr) const;
  // Reads a libplist tree. Nodes of the types KEY, UID and NONE, dictionaries with a key
  // twice, invalid UTF-8 and nesting beyond kPlistMaxDepth give nullopt and a reason.
  static std::optional<PlistValue> fromPlist(plist_t node, std::string* error = nullptr);

  friend bool operator==(const PlistValue& a, const PlistValue& b);

 private:
  struct UnsignedTag {};
  PlistValue(UnsignedTag, std::uint64_t value);

  std::variant<bool, std::int64_t, std::uint64_t, double, std::string, PlistDate, PlistData,
               PlistArray, PlistDictionary>
      storage_;
};

// For "%@" in log texts.
inline std::string describe(const PlistValue& value) { return value.describe(); }

// The shortest text that reads back as the same double; "nan", "+infinity" and "-infinity" for
// the others. describe() and the XML form write reals this way.
std::string formatPlistReal(double value);

// Reads an XML or binary property list (told apart by the "bplist" signature). Anything
// malformed, truncated or unsupported gives nullopt and, when `error` is given, the reason.
std::optional<PlistValue> parsePropertyList(std::span<const std::uint8_t> bytes,
                                            std::string* error = nullptr);

// Reads an XML or binary property list, with the checks of parsePropertyList(), into a libplist
// tree. Of a binary document the tree keeps the order of dictionary keys, which PlistValue does
// not; of an XML document the keys come sorted.
PlistHandle parsePropertyListTree(std::span<const std::uint8_t> bytes,
                                  std::string* error = nullptr);

// Writes `value` as a document of the given format. A value that cannot be written (see the
// top of this file) gives an empty vector, an error log line and the reason in `error`; a
// document is never empty.
std::vector<std::uint8_t> serializePropertyList(const PlistValue& value, PlistFormat format,
                                                std::string* error = nullptr);

}  // namespace orvex
