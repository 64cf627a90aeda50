// Formatting of log texts that keep printf-style and "%@" placeholders.
//
// Log texts are written exactly as they are searched for ("new connection from %@ (%d)"), and
// the arguments are bound at run time with their types known, so a mismatched argument is
// rendered sensibly instead of being undefined behaviour.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace orvex {

namespace log_format_detail {
// Looked up from outside LogArg: inside the class, the member describe() would hide the free
// functions that argument-dependent lookup is meant to find.
// Only class types: numbers are formatted by kind, never through a describe() that happens to
// accept them by conversion.
template <typename T>
concept Describable = std::is_class_v<T> && requires(const T& t) {
  { describe(t) } -> std::convertible_to<std::string>;
};
template <typename T>
std::string describeValue(const T& value) {
  return describe(value);
}
}  // namespace log_format_detail

// One argument of a log text. Integers, floating-point numbers, booleans, strings, pointers and
// "nothing" (std::nullopt, nullptr) are kept with their kind so that each conversion of the
// format can render them; anything else is described by a free function
// `std::string describe(const T&)` found by argument-dependent lookup.
class LogArg {
 public:
  enum class Kind { kNull, kSigned, kUnsigned, kDouble, kBool, kString, kPointer };

  LogArg() = default;
  LogArg(std::nullptr_t) {}
  LogArg(std::nullopt_t) {}
  LogArg(bool value) : kind_(Kind::kBool), unsigned_(value ? 1 : 0) {}
  template <std::signed_integral T>
  LogArg(T value) : kind_(Kind::kSigned), signed_(value) {}
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) LogArg(T value) : kind_(Kind::kUnsigned), unsigned_(value) {}
  template <std::floating_point T>
  LogArg(T value) : kind_(Kind::kDouble), double_(static_cast<double>(value)) {}
  LogArg(const char* value) {
    if (value != nullptr) {
      kind_ = Kind::kString;
      string_ = value;
    }
  }
  LogArg(std::string_view value) : kind_(Kind::kString), string_(value) {}
  LogArg(const std::string& value) : kind_(Kind::kString), string_(value) {}
  LogArg(std::string&& value) : kind_(Kind::kString), string_(std::move(value)) {}
  LogArg(const void* value) : kind_(Kind::kPointer), pointer_(value) {}
  template <typename T>
  LogArg(const std::optional<T>& value) {
    if (value) *this = LogArg(*value);
  }
  template <typename T>
  requires log_format_detail::Describable<T> LogArg(const T& value)
      : kind_(Kind::kString), string_(log_format_detail::describeValue(value)) {}
  template <typename E>
  requires std::is_enum_v<E> LogArg(E value)
      : LogArg(static_cast<std::underlying_type_t<E>>(value)) {}

  Kind kind() const { return kind_; }
  int64_t asSigned() const;
  uint64_t asUnsigned() const;
  double asDouble() const;
  // The "%@" rendering: strings as they are, numbers in decimal, booleans as YES/NO, nothing
  // as "(null)".
  std::string describe() const;
  const std::string& string() const { return string_; }
  const void* pointer() const { return pointer_; }

 private:
  template <typename Number>
  Number asNumber() const;

  Kind kind_ = Kind::kNull;
  int64_t signed_ = 0;
  uint64_t unsigned_ = 0;
  double double_ = 0;
  std::string string_;
  const void* pointer_ = nullptr;
};

// Renders `format` with `args`. Understands "%%", "%@", and the printf conversions d i u x X o
// c s f F e E g G p with flags, width, precision (including "*" taken from the arguments) and
// the length modifiers hh h l ll z j t L q. A conversion with no argument left renders as
// "(missing)"; arguments left over are ignored; an unknown conversion is copied as it stands.
std::string formatLogMessage(std::string_view format, std::span<const LogArg> args);

// The longest log line written; the rest of a longer one is cut and counted in the line.
inline constexpr size_t kMaxLogLineBytes = 4096;

// `message` as one safe log line: control characters escaped ("\n", "\r", "\x1b"), so that
// text from a client or the network cannot forge lines or steer a terminal, and cut after
// `maxBytes` (on a character boundary) with "... [N bytes cut]". None when it is fine as it is.
std::optional<std::string> sanitizedLogLine(std::string_view message,
                                            size_t maxBytes = kMaxLogLineBytes);

template <typename... Args>
std::string formatLog(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return formatLogMessage(format, {});
  } else {
    const LogArg bound[] = {LogArg(args)...};
    return formatLogMessage(format, bound);
  }
}

}  // namespace orvex
