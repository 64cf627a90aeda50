#include "orvexd/platform/language_detector.h"

#include <gtest/gtest.h>

#include <string>

namespace orvex {
namespace {

TEST(LanguageDetectorTest, NamesTheLanguageOfClearTextAndOnlyOfValidUtf8) {
  const auto detector = makeLanguageDetector();
  // (French and German text: the request factory's lookup test.)
  EXPECT_EQ(
      detector->languageOf(
          "今天天气很好，所以我们打算沿着河边散步很长时间，然后在公园里吃午饭。我们都非常高兴。"),
      "zh");

  EXPECT_EQ(detector->languageOf(""), kUndeterminedLanguage);
  EXPECT_EQ(detector->languageOf("1234567890 42 3.14159 2024-01-01"), kUndeterminedLanguage);
  EXPECT_EQ(detector->languageOf("😀😀🎉🎉👍👍🔥🔥"), kUndeterminedLanguage);
  // Stray continuation byte, truncated sequence, over-long slash, surrogate, past U+10FFFF:
  // each is refused even inside otherwise clear English.
  const std::string english = "The weather is lovely today, so we are going for a long walk ";
  for (const std::string bad :
       {"\x80", "\xE2\x82", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_EQ(detector->languageOf(english + bad + english), kUndeterminedLanguage)
        << "byte sequence of length " << bad.size();
    EXPECT_EQ(detector->languageOf(english + bad), kUndeterminedLanguage);
  }

  // Far past the detected prefix, with a multi-byte character straddling the cut.
  std::string text;
  while (text.size() < 200 * 1024) text += "Die Straße führt über die Brücke zum großen Bahnhof. ";
  EXPECT_EQ(detector->languageOf(text), "de");
}

}  // namespace
}  // namespace orvex
