#include "orvexd/platform/language_detector.h"

#include <cld2/public/compact_lang_det.h>
#include <cld2/public/encodings.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvex {

namespace {

// CLD2 judges a text by its first few kilobytes anyway; a longer text costs time without
// changing the answer, and its length must fit CLD2's int.
constexpr std::size_t kMaxDetectedBytes = 64 * 1024;

// Whether `text` is well-formed UTF-8: no stray continuation bytes, no truncated sequences, no
// over-long forms, no surrogates, nothing past U+10FFFF. CLD2 reads past the end of malformed
// input, so nothing else reaches it.
bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const std::uint8_t lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    std::uint8_t min = 0x80;
    std::uint8_t max = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) min = 0xA0;  // over-long
      if (lead == 0xED) max = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) min = 0x90;  // over-long
      if (lead == 0xF4) max = 0x8F;  // past U+10FFFF
    } else {
      return false;
    }
    if (size - i < length) return false;
    if (bytes[i + 1] < min || bytes[i + 1] > max) return false;
    for (std::size_t k = 2; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

// The longest prefix of valid UTF-8 `text` that holds at most `limit` bytes and ends on a
// character boundary.
std::string_view utf8Prefix(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<std::uint8_t>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

class Cld2LanguageDetector final : public LanguageDetector {
 public:
  std::string languageOf(std::string_view utf8Text) const override {
    if (utf8Text.empty() || !isValidUtf8(utf8Text)) return std::string(kUndeterminedLanguage);
    const std::string_view text = utf8Prefix(utf8Text, kMaxDetectedBytes);

    const CLD2::CLDHints hints{nullptr, nullptr, CLD2::UNKNOWN_ENCODING, CLD2::UNKNOWN_LANGUAGE};
    CLD2::Language languages[3] = {};
    int percents[3] = {};
    double scores[3] = {};
    int textBytes = 0;
    bool reliable = false;
    const CLD2::Language language = CLD2::ExtDetectLanguageSummary(
        text.data(), static_cast<int>(text.size()), /*is_plain_text=*/true, &hints, /*flags=*/0,
        languages, percents, scores, /*resultchunkvector=*/nullptr, &textBytes, &reliable);
    if (language == CLD2::UNKNOWN_LANGUAGE || language == CLD2::TG_UNKNOWN_LANGUAGE) {
      return std::string(kUndeterminedLanguage);
    }
    // From X_BORK_BORK_BORK on, CLD2 numbers its joke languages ("zzb") and the pseudo-languages
    // it gives to scripts it cannot place ("xx-Copt"); none of them names a language.
    if (language >= CLD2::X_BORK_BORK_BORK) return std::string(kUndeterminedLanguage);
    const char* code = CLD2::LanguageCode(language);
    if (code == nullptr || *code == '\0') return std::string(kUndeterminedLanguage);
    return code;
  }
};

}  // namespace

std::unique_ptr<LanguageDetector> makeLanguageDetector() {
  return std::make_unique<Cld2LanguageDetector>();
}

}  // namespace orvex
