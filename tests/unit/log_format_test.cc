#include "orvexd/base/log_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

struct Point {
  int x;
  int y;
};
std::string describe(const Point& p) { return formatLog("(%d, %d)", p.x, p.y); }

enum class Color { kRed = 2 };

template <typename T>
std::string printed(const char* format, T value) {
  char buffer[256];
  std::snprintf(buffer, sizeof(buffer), format, value);
  return buffer;
}

TEST(LogFormatTest, NumericConversionsRenderAsPrintfWould) {
  const int64_t big = 5000000000;
  EXPECT_EQ(formatLog("%ld|%lu|%lld|%lx", -7L, 7UL, big, 255L), "-7|7|5000000000|ff");
  EXPECT_EQ(formatLog("%zu bytes", size_t{42}), "42 bytes");
  EXPECT_EQ(formatLog("%5.1f|%e", 2.25, 1234.5),
            printed("%5.1f", 2.25) + "|" + printed("%e", 1234.5));
  EXPECT_EQ(formatLog("[%-10s][%10s]", "ab", "cd"), "[ab        ][        cd]");
  EXPECT_EQ(formatLog("[%*d][%-*d][%.*f]", 5, 42, 4, 7, 1, 2.25), "[   42][7   ][2.2]");
  EXPECT_EQ(formatLog("%c%c 100%%", 'o', 'k'), "ok 100%");
  EXPECT_EQ(formatLog("%05d|%+d|%#x|%o|%X", 42, 5, 255, 8, 255U), "00042|+5|0xff|10|FF");
  // The length modifier decides how much of the value is read, as with printf.
  EXPECT_EQ(formatLog("%hhd|%hu|%d", 300, 70000, big), "44|4464|705032704");
  EXPECT_EQ(formatLog("%u|%lu", -1, -1), "4294967295|18446744073709551615");
  EXPECT_EQ(formatLog("%qd|%jd|%td|%Lf", big, big, -3L, 1.5), "5000000000|5000000000|-3|1.500000");
}

TEST(LogFormatTest, ArgumentsRenderByTheirKind) {
  EXPECT_EQ(formatLog("%@ %@ %d %s", true, false, false, true), "YES NO 0 YES");
  EXPECT_EQ(
      formatLog("%@|%d|%s|%@", nullptr, std::nullopt, nullptr, static_cast<const char*>(nullptr)),
      "(null)|(null)|(null)|(null)");
  EXPECT_EQ(formatLog("%@ %@", std::optional<int>(3), std::optional<std::string>()), "3 (null)");
  EXPECT_EQ(formatLog("%s %@ %@ %@", 42, -1.5, 0.1, 18446744073709551615ULL),
            "42 -1.5 0.1 18446744073709551615");
  EXPECT_EQ(formatLog("at %@ %s", Point{1, 2}, Point{3, 4}), "at (1, 2) (3, 4)");
  EXPECT_EQ(formatLog("%d %@", Color::kRed, Color::kRed), "2 2");
  // Strings under numeric conversions render the number they spell, else themselves.
  EXPECT_EQ(formatLog("%d|%x|%.1f|%d|%5d|", "123", " 255 ", "2.5", "abc", "ab"),
            "123|ff|2.5|abc|   ab|");
  EXPECT_EQ(
      formatLog("%d|%d|%u|%d", 3.9, std::nan(""), "-1", std::numeric_limits<double>::infinity()),
      "3|0|4294967295|-1");
  EXPECT_EQ(formatLog("%.1f|%.0f", 7, true), "7.0|1");
}

TEST(LogFormatTest, MalformedFormatsAndArgumentListsRenderSafely) {
  EXPECT_EQ(formatLog("%d and %@", 1), "1 and (missing)");
  EXPECT_EQ(formatLog("%*d", 5), "(missing)");
  EXPECT_EQ(formatLog("only %d", 1, 2, 3), "only 1");
  // Unknown conversions are copied and take no argument; %n is never handed to printf.
  EXPECT_EQ(formatLog("%k %5y %n %d", 9), "%k %5y %n 9");
  EXPECT_EQ(formatLog("cut %", 1), "cut %");
  EXPECT_EQ(formatLog("cut %-5.", 1), "cut %-5.");
  EXPECT_EQ(formatLog("no args %d %s"), "no args (missing) (missing)");
  EXPECT_EQ(formatLog("[%*d][%.*d]", -4, 1, -1, 2), "[1   ][2]");
  EXPECT_EQ(formatLog("%99999999999d", 1).size(), 4096u);
  EXPECT_EQ(formatLog("%*s", int64_t{1} << 40, "x").size(), 4096u);
  EXPECT_EQ(formatLog("%.99999f", 1.0).size(), 4098u);
  EXPECT_EQ(formatLog("%lc|%C|%c|", 0x263A, 0xE9, 0), "\xE2\x98\xBA|\xC3\xA9||");
  EXPECT_EQ(formatLog("%.2s|%.3s|%ls", "\xC3\xA9t\xC3\xA9", "abcdef", "wide"), "\xC3\xA9|abc|wide");
  EXPECT_EQ(formatLog(std::string_view("a\0%d", 4), 5), std::string("a\0"
                                                                    "5",
                                                                    3));
}

TEST(LogFormatTest, LogLinesEscapeControlCharactersAndAreCutOnACharacterBoundary) {
  EXPECT_EQ(sanitizedLogLine("plain\ttext"), std::nullopt);
  // A client's user agent cannot start a forged line or steer a terminal.
  EXPECT_EQ(sanitizedLogLine("G/1\r\nX-Injected: yes\x1b[2J"), "G/1\\r\\nX-Injected: yes\\x1b[2J");
  // Cut after the limit, never inside "\xC3\xA9" or an escape.
  EXPECT_EQ(sanitizedLogLine("ab\xC3\xA9"
                             "cd",
                             3),
            "ab... [4 bytes cut]");
  EXPECT_EQ(sanitizedLogLine("a\nb", 2), "a... [2 bytes cut]");
  const std::string huge(kMaxLogLineBytes * 3, 'x');
  const auto cut = sanitizedLogLine(huge);
  ASSERT_TRUE(cut);
  EXPECT_EQ(*cut, std::string(kMaxLogLineBytes, 'x').append("... [8192 bytes cut]"));
  // Header text a back-end sent, made fit for a D-Bus string: stray and overlong bytes replaced.
  EXPECT_EQ(toValidUtf8("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(toValidUtf8("a\xFF\xC0\xAFz\xE2\x82"), "a\uFFFD\uFFFD\uFFFDz\uFFFD\uFFFD");
}

}  // namespace
}  // namespace orvex
