// Names the language of a short text.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace orvex {

// The tag for a text whose language cannot be determined.
inline constexpr std::string_view kUndeterminedLanguage = "und";

class LanguageDetector {
 public:
  virtual ~LanguageDetector() = default;
  // A language code ("en", "fr", "zh-Hant") or kUndeterminedLanguage. Safe from any thread;
  // invalid UTF-8 is undetermined.
  virtual std::string languageOf(std::string_view utf8Text) const = 0;
};

// Backed by CLD2.
std::unique_ptr<LanguageDetector> makeLanguageDetector();

}  // namespace orvex
