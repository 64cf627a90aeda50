#include "orvexd/base/log_format.h"

#include <sys/types.h>

#include <array>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>

#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

// Field widths and precisions beyond this are clamped so that a damaged format string cannot
// make one log line allocate without bound.
constexpr int kMaxFieldSize = 4096;

// Converts with saturation: the out-of-range cases of a plain cast are undefined.
int64_t doubleToSigned(double value) { return saturatingInt64(value); }

uint64_t doubleToUnsigned(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
  // Negative values wrap the way a negative integer does when printed with %u.
  if (value < 0) return static_cast<uint64_t>(doubleToSigned(value));
  return static_cast<uint64_t>(value);
}

// The number a string argument spells, if it spells one: a decimal integer (signed, or unsigned
// beyond the signed range) or a floating-point number. Surrounding white space is allowed.
std::optional<LogArg> numberInString(std::string_view text) {
  text = trimWhitespace(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  int64_t signed_value = 0;
  if (auto [ptr, ec] = std::from_chars(begin, end, signed_value); ec == std::errc() && ptr == end) {
    return LogArg(signed_value);
  }
  uint64_t unsigned_value = 0;
  if (auto [ptr, ec] = std::from_chars(begin, end, unsigned_value);
      ec == std::errc() && ptr == end) {
    return LogArg(unsigned_value);
  }
  double double_value = 0;
  if (auto [ptr, ec] = std::from_chars(begin, end, double_value); ec == std::errc() && ptr == end) {
    return LogArg(double_value);
  }
  return std::nullopt;
}

// One parsed conversion: "%" flags width .precision length conversion.
struct Conversion {
  std::string flags;
  bool left_justify = false;
  bool width_from_argument = false;
  int width = -1;
  bool precision_from_argument = false;
  int precision = -1;
  std::string_view length;
  char conversion = '\0';
};

bool isFlag(char c) {
  return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\'';
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int parseNumber(std::string_view format, size_t& pos) {
  int value = 0;
  while (pos < format.size() && isDigit(format[pos])) {
    value = std::min(kMaxFieldSize, value * 10 + (format[pos] - '0'));
    ++pos;
  }
  return value;
}

// Parses the conversion that starts after the '%' at `pos`. Returns false when the format ends
// inside it; `pos` is then left at the end.
bool parseConversion(std::string_view format, size_t& pos, Conversion& out) {
  while (pos < format.size() && isFlag(format[pos])) {
    if (format[pos] == '-') out.left_justify = true;
    if (out.flags.find(format[pos]) == std::string::npos) out.flags.push_back(format[pos]);
    ++pos;
  }
  if (pos < format.size() && format[pos] == '*') {
    out.width_from_argument = true;
    ++pos;
  } else if (pos < format.size() && isDigit(format[pos])) {
    out.width = parseNumber(format, pos);
  }
  if (pos < format.size() && format[pos] == '.') {
    ++pos;
    if (pos < format.size() && format[pos] == '*') {
      out.precision_from_argument = true;
      ++pos;
    } else {
      out.precision = parseNumber(format, pos);
    }
  }
  // Longer modifiers first, so that "hh" is not read as "h".
  static constexpr std::array<std::string_view, 9> kLengths = {"hh", "h", "ll", "l", "z",
                                                               "j",  "t", "L",  "q"};
  for (std::string_view length : kLengths) {
    if (format.substr(pos, length.size()) == length) {
      out.length = length;
      pos += length.size();
      break;
    }
  }
  if (pos >= format.size()) return false;
  out.conversion = format[pos++];
  return true;
}

bool isKnownConversion(char c) {
  switch (c) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
    case 'C':
    case 's':
    case 'S':
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
    case 'p':
    case '@':
      return true;
    default:
      return false;
  }
}

bool isFloatConversion(char c) {
  return c == 'f' || c == 'F' || c == 'e' || c == 'E' || c == 'g' || c == 'G' || c == 'a' ||
         c == 'A';
}

// Pads `text` to the field width with spaces, on the left unless '-' was given.
void appendPadded(std::string& out, std::string_view text, const Conversion& directive) {
  const size_t width = directive.width > 0 ? static_cast<size_t>(directive.width) : 0;
  const size_t padding = text.size() < width ? width - text.size() : 0;
  if (!directive.left_justify) out.append(padding, ' ');
  out.append(text);
  if (directive.left_justify) out.append(padding, ' ');
}

// Cuts a string at the precision, backing off so that a multi-byte UTF-8 sequence is never split.
std::string_view truncated(std::string_view text, int precision) {
  if (precision < 0 || static_cast<size_t>(precision) >= text.size()) return text;
  size_t cut = static_cast<size_t>(precision);
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut);
}

// Builds the printf conversion for snprintf: only the flags that are defined for the
// conversion, the resolved width and precision, and the given length modifier.
std::string printfDirective(const Conversion& directive, std::string_view length, char conversion) {
  std::string out = "%";
  for (char flag : directive.flags) {
    const bool allowed =
        flag == '#'
            ? (conversion == 'o' || conversion == 'x' || conversion == 'X' ||
               isFloatConversion(conversion))
            : (flag != '\'' || conversion == 'd' || conversion == 'i' || conversion == 'u' ||
               conversion == 'f' || conversion == 'F' || conversion == 'g' || conversion == 'G');
    if (allowed) out.push_back(flag);
  }
  if (directive.left_justify && out.find('-') == std::string::npos) out.push_back('-');
  if (directive.width > 0) out += std::to_string(directive.width);
  if (directive.precision >= 0) {
    out.push_back('.');
    out += std::to_string(directive.precision);
  }
  out.append(length);
  out.push_back(conversion);
  return out;
}

template <typename T>
void appendPrintf(std::string& out, const std::string& directive, T value) {
  std::array<char, 128> buffer;
  const int needed = std::snprintf(buffer.data(), buffer.size(), directive.c_str(), value);
  if (needed < 0) return;
  if (static_cast<size_t>(needed) < buffer.size()) {
    out.append(buffer.data(), static_cast<size_t>(needed));
    return;
  }
  std::string large(static_cast<size_t>(needed) + 1, '\0');
  std::snprintf(large.data(), large.size(), directive.c_str(), value);
  large.resize(static_cast<size_t>(needed));
  out += large;
}

// Renders an integer conversion. The value is first narrowed to the type the length modifier
// names, as printf would read it, and then handed to snprintf as a 64-bit value.
void appendInteger(std::string& out, const Conversion& directive, const LogArg& arg) {
  const char c = directive.conversion;
  const std::string_view length = directive.length;
  if (c == 'd' || c == 'i') {
    const int64_t value = arg.asSigned();
    long long narrowed;
    if (length == "hh") {
      narrowed = static_cast<signed char>(value);
    } else if (length == "h") {
      narrowed = static_cast<short>(value);
    } else if (length.empty()) {
      narrowed = static_cast<int>(value);
    } else if (length == "l") {
      narrowed = static_cast<long>(value);
    } else if (length == "z") {
      narrowed = static_cast<ssize_t>(value);
    } else if (length == "t") {
      narrowed = static_cast<ptrdiff_t>(value);
    } else if (length == "j") {
      narrowed = static_cast<intmax_t>(value);
    } else {
      narrowed = static_cast<long long>(value);
    }
    appendPrintf(out, printfDirective(directive, "ll", c), narrowed);
    return;
  }
  const uint64_t value = arg.asUnsigned();
  unsigned long long narrowed;
  if (length == "hh") {
    narrowed = static_cast<unsigned char>(value);
  } else if (length == "h") {
    narrowed = static_cast<unsigned short>(value);
  } else if (length.empty()) {
    narrowed = static_cast<unsigned int>(value);
  } else if (length == "l") {
    narrowed = static_cast<unsigned long>(value);
  } else if (length == "z" || length == "t") {
    narrowed = static_cast<size_t>(value);
  } else if (length == "j") {
    narrowed = static_cast<uintmax_t>(value);
  } else {
    narrowed = static_cast<unsigned long long>(value);
  }
  appendPrintf(out, printfDirective(directive, "ll", c), narrowed);
}

void appendCharacter(std::string& out, const Conversion& directive, const LogArg& arg) {
  std::string text;
  const bool wide = directive.conversion == 'C' || directive.length == "l";
  const uint64_t value = arg.asUnsigned();
  if (wide) {
    appendUtf8(text, static_cast<char32_t>(std::min<uint64_t>(value, 0xFFFFFFFFu)));
  } else {
    text.push_back(static_cast<char>(static_cast<unsigned char>(value)));
  }
  // A NUL character would cut the line short in every destination, so it renders as nothing.
  if (text == std::string_view("\0", 1)) text.clear();
  appendPadded(out, text, directive);
}

void appendPointer(std::string& out, const Conversion& directive, const LogArg& arg) {
  uint64_t address = 0;
  if (arg.kind() == LogArg::Kind::kPointer) {
    address = reinterpret_cast<uintptr_t>(arg.pointer());
  } else {
    address = arg.asUnsigned();
  }
  std::array<char, 32> buffer;
  const int length = std::snprintf(buffer.data(), buffer.size(), "0x%" PRIx64, address);
  appendPadded(out, std::string_view(buffer.data(), static_cast<size_t>(length)), directive);
}

void appendConversion(std::string& out, const Conversion& directive, const LogArg& arg) {
  const char c = directive.conversion;
  const LogArg::Kind kind = arg.kind();
  if (kind == LogArg::Kind::kNull) {
    appendPadded(out,
                 truncated("(null)", c == 's' || c == 'S' || c == '@' ? directive.precision : -1),
                 directive);
    return;
  }
  if (c == '@' || c == 's' || c == 'S') {
    const std::string text = kind == LogArg::Kind::kString ? arg.string() : arg.describe();
    appendPadded(out, truncated(text, directive.precision), directive);
    return;
  }
  // A string under a numeric conversion renders as the number it spells, else as itself.
  std::optional<LogArg> parsed;
  if (kind == LogArg::Kind::kString) {
    parsed = numberInString(arg.string());
    if (!parsed) {
      appendPadded(out, arg.string(), directive);
      return;
    }
  }
  const LogArg& value = parsed ? *parsed : arg;
  if (c == 'p') {
    appendPointer(out, directive, value);
  } else if (c == 'c' || c == 'C') {
    appendCharacter(out, directive, value);
  } else if (isFloatConversion(c)) {
    appendPrintf(out, printfDirective(directive, "", c), value.asDouble());
  } else {
    appendInteger(out, directive, value);
  }
}

}  // namespace

// A string converts as the number it spells (0 when it spells none), a double with saturation.
template <typename Number>
Number LogArg::asNumber() const {
  switch (kind_) {
    case Kind::kSigned:
      return static_cast<Number>(signed_);
    case Kind::kUnsigned:
    case Kind::kBool:
      return static_cast<Number>(unsigned_);
    case Kind::kDouble:
      if constexpr (std::is_same_v<Number, int64_t>) {
        return doubleToSigned(double_);
      } else if constexpr (std::is_same_v<Number, uint64_t>) {
        return doubleToUnsigned(double_);
      } else {
        return double_;
      }
    case Kind::kString: {
      const std::optional<LogArg> number = numberInString(string_);
      return number ? number->asNumber<Number>() : 0;
    }
    case Kind::kPointer:
      return static_cast<Number>(reinterpret_cast<uintptr_t>(pointer_));
    case Kind::kNull:
      break;
  }
  return 0;
}

int64_t LogArg::asSigned() const { return asNumber<int64_t>(); }
uint64_t LogArg::asUnsigned() const { return asNumber<uint64_t>(); }
double LogArg::asDouble() const { return asNumber<double>(); }

std::string LogArg::describe() const {
  switch (kind_) {
    case Kind::kNull:
      return "(null)";
    case Kind::kSigned:
      return std::to_string(signed_);
    case Kind::kUnsigned:
      return std::to_string(unsigned_);
    case Kind::kBool:
      return unsigned_ != 0 ? "YES" : "NO";
    case Kind::kDouble: {
      // The shortest text that reads back as the same number: 0.1 stays "0.1".
      std::array<char, 64> buffer;
      const auto [ptr, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), double_);
      if (ec != std::errc()) return "nan";
      return std::string(buffer.data(), ptr);
    }
    case Kind::kString:
      return string_;
    case Kind::kPointer: {
      std::array<char, 32> buffer;
      const int length = std::snprintf(buffer.data(), buffer.size(), "0x%" PRIxPTR,
                                       reinterpret_cast<uintptr_t>(pointer_));
      return std::string(buffer.data(), static_cast<size_t>(length));
    }
  }
  return "(null)";
}

std::string formatLogMessage(std::string_view format, std::span<const LogArg> args) {
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  size_t next_arg = 0;
  size_t pos = 0;
  while (pos < format.size()) {
    const size_t percent = format.find('%', pos);
    if (percent == std::string_view::npos) {
      out.append(format.substr(pos));
      break;
    }
    out.append(format.substr(pos, percent - pos));
    pos = percent + 1;
    if (pos < format.size() && format[pos] == '%') {
      out.push_back('%');
      ++pos;
      continue;
    }
    Conversion directive;
    if (!parseConversion(format, pos, directive) || !isKnownConversion(directive.conversion)) {
      // Unknown or cut short: copied as written, and no argument is taken for it.
      out.append(format.substr(percent, pos - percent));
      continue;
    }
    const size_t needed =
        (directive.width_from_argument ? 1 : 0) + (directive.precision_from_argument ? 1 : 0) + 1;
    if (args.size() - std::min(next_arg, args.size()) < needed) {
      next_arg = args.size();
      out.append("(missing)");
      continue;
    }
    if (directive.width_from_argument) {
      const int64_t width = args[next_arg++].asSigned();
      // A negative width taken from the arguments means left-justified, as in printf.
      if (width < 0) directive.left_justify = true;
      const uint64_t magnitude =
          width < 0 ? 0 - static_cast<uint64_t>(width) : static_cast<uint64_t>(width);
      directive.width = static_cast<int>(std::min<uint64_t>(magnitude, kMaxFieldSize));
    }
    if (directive.precision_from_argument) {
      const int64_t precision = args[next_arg++].asSigned();
      directive.precision =
          precision < 0 ? -1 : static_cast<int>(std::min<int64_t>(precision, kMaxFieldSize));
    }
    appendConversion(out, directive, args[next_arg++]);
  }
  return out;
}

std::optional<std::string> sanitizedLogLine(std::string_view message, size_t maxBytes) {
  const auto isControl = [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7f; };
  bool clean = message.size() <= maxBytes;
  for (size_t i = 0; clean && i < message.size(); ++i) {
    clean = !isControl(static_cast<unsigned char>(message[i]));
  }
  if (clean) return std::nullopt;

  std::string line;
  line.reserve(std::min(message.size(), maxBytes) + 32);
  size_t used = 0;
  for (; used < message.size(); ++used) {
    const auto c = static_cast<unsigned char>(message[used]);
    if (!isControl(c)) {
      if (line.size() + 1 > maxBytes) break;
      line += static_cast<char>(c);
      continue;
    }
    char escaped[5];
    if (c == '\n') {
      std::snprintf(escaped, sizeof escaped, "\\n");
    } else if (c == '\r') {
      std::snprintf(escaped, sizeof escaped, "\\r");
    } else {
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
    }
    if (line.size() + std::strlen(escaped) > maxBytes) break;
    line += escaped;
  }
  if (used < message.size()) {
    // Back off to the start of a UTF-8 character rather than split one (multi-byte characters
    // are copied byte for byte, never escaped).
    while (used > 0 && !line.empty() &&
           (static_cast<unsigned char>(message[used]) & 0xC0) == 0x80) {
      line.pop_back();
      --used;
    }
    line += "... [" + std::to_string(message.size() - used) + " bytes cut]";
  }
  return line;
}

}  // namespace orvex
