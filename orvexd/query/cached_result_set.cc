#include "orvexd/query/cached_result_set.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

#include "orvexd/base/text_util.h"

namespace orvex {

std::string lowercasedQueryText(std::string_view text) {
  // ASCII text, what most keystrokes give, lowers the same way by the root rules.
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii || !isValidUtf8(text)) {
    std::string lowered(text);
    for (char& c : lowered) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lowered;
  }
  icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  unicode.toLower(icu::Locale::getRoot());
  std::string lowered;
  unicode.toUTF8String(lowered);
  return lowered;
}

std::size_t queryTextLength(std::string_view text) {
  std::size_t units = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8SequenceLength(text, at);
    if (length == 0) {
      ++units;
      ++at;
    } else {
      units += length == 4 ? 2 : 1;  // past the basic plane: a surrogate pair
      at += length;
    }
  }
  return units;
}

namespace {

std::optional<WallTime> expiryFrom(const nlohmann::json& resultSet, WallTime now) {
  if (!resultSet.is_object()) return std::nullopt;
  const auto found = resultSet.find("max_age");
  if (found == resultSet.end() || !found->is_number()) return std::nullopt;
  const double seconds = found->get<double>();
  // 0 means "no lifetime"; a negative lifetime has already run out.
  if (seconds == 0 || std::isnan(seconds)) return std::nullopt;
  // Centuries are as good as never; keep the sum inside the clock's range.
  const double capped = std::clamp(seconds, -1e9, 1e9);
  return now +
         std::chrono::duration_cast<WallTime::duration>(std::chrono::duration<double>(capped));
}

std::optional<float> numberFrom(std::string_view text) {
  text = trimWhitespace(text);
  float value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

CachedResultSet::CachedResultSet(std::string_view input, HttpRequest request,
                                 nlohmann::json resultSet, Uuid uuid, WallTime now)
    : CachedResultSet(input, std::move(request),
                      std::make_shared<const nlohmann::json>(std::move(resultSet)), uuid, now) {}

CachedResultSet::CachedResultSet(std::string_view input, HttpRequest request,
                                 std::shared_ptr<const nlohmann::json> resultSet, Uuid uuid,
                                 WallTime now)
    : input_(lowercasedQueryText(input)),
      request_(std::make_shared<const HttpRequest>(std::move(request))),
      resultSet_(std::move(resultSet)),
      expireTime_(expiryFrom(*resultSet_, now)),
      uuid_(uuid) {}

std::optional<std::string> CachedResultSet::query() const {
  if (!resultSet_->is_object()) return std::nullopt;
  const auto found = resultSet_->find("query");
  if (found == resultSet_->end() || !found->is_string()) return std::nullopt;
  return lowercasedQueryText(found->get_ref<const std::string&>());
}

std::optional<Uuid> CachedResultSet::userGuid() const {
  const auto found = request_->headers.find("X-Zelmor-UserGuid");
  if (found == request_->headers.end()) return std::nullopt;
  return Uuid::fromString(trimWhitespace(found->second));
}

float CachedResultSet::uiScale() const {
  const auto found = request_->headers.find("X-Zelmor-UI-Scale");
  if (found == request_->headers.end()) return 0;
  return numberFrom(found->second).value_or(0);
}

float CachedResultSet::completionScore() const {
  if (!resultSet_->is_object()) return 0;
  const auto found = resultSet_->find("completion_score");
  if (found == resultSet_->end() || !found->is_number()) return 0;
  const double score = found->get<double>();
  return std::isfinite(score) ? static_cast<float>(score) : 0;
}

}  // namespace orvex
