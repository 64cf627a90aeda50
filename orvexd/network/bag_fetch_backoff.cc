#include "orvexd/network/bag_fetch_backoff.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>

namespace orvex {

namespace {

// Digits only, as Retry-After's delta-seconds; none for anything else or absurd lengths.
std::optional<int64_t> parseSeconds(std::string_view text) {
  if (text.empty() || text.size() > 12) return std::nullopt;
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::optional<Duration> BagFetchBackoff::remaining(MonotonicTime now) const {
  std::lock_guard lock(mutex_);
  if (!notBefore_ || *notBefore_ <= now) return std::nullopt;
  return *notBefore_ - now;
}

void BagFetchBackoff::fetchSucceeded() {
  std::lock_guard lock(mutex_);
  failures_ = 0;
  notBefore_.reset();
}

Duration BagFetchBackoff::fetchFailed(MonotonicTime now, std::optional<Duration> retryAfter) {
  std::lock_guard lock(mutex_);
  // 1 s doubled per earlier failure; past nine doublings the cap has long been reached.
  const unsigned doublings = std::min(failures_, 9u);
  failures_ = std::min(failures_ + 1, 1000u);
  Duration delay = std::min<Duration>(kFirstDelay * (1 << doublings), kMaxDelay);
  if (retryAfter) delay = std::max(delay, std::min(*retryAfter, kMaxRetryAfter));
  notBefore_ = deadlineAfter(now, delay);
  return delay;
}

std::optional<Duration> BagFetchBackoff::retryAfter(const HttpResponse& response, WallTime now) {
  if (response.statusCode != 429 && response.statusCode != 503) return std::nullopt;
  const auto header = response.headers.find("Retry-After");
  if (header == response.headers.end()) return std::nullopt;
  const std::string_view value = trimmed(header->second);
  if (const auto seconds = parseSeconds(value)) {
    return std::min<Duration>(std::chrono::seconds(std::min<int64_t>(*seconds, 1'000'000'000)),
                              kMaxRetryAfter);
  }
  const auto date = parseHttpDate(value);
  if (!date) return std::nullopt;
  if (*date <= now) return Duration::zero();
  return std::min<Duration>(std::chrono::duration_cast<Duration>(*date - now), kMaxRetryAfter);
}

std::optional<WallTime> BagFetchBackoff::parseHttpDate(std::string_view text) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  // "Www, DD Mon YYYY HH:MM:SS GMT": 29 characters at fixed places.
  if (text.size() != 29 || text.substr(3, 2) != ", " || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  const auto number = [&](size_t at, size_t length) {
    return parseSeconds(text.substr(at, length)).value_or(-1);
  };
  const auto month = std::find(kMonths.begin(), kMonths.end(), text.substr(8, 3));
  std::tm fields{};
  fields.tm_mday = static_cast<int>(number(5, 2));
  fields.tm_mon = static_cast<int>(month - kMonths.begin());
  fields.tm_year = static_cast<int>(number(12, 4)) - 1900;
  fields.tm_hour = static_cast<int>(number(17, 2));
  fields.tm_min = static_cast<int>(number(20, 2));
  fields.tm_sec = static_cast<int>(number(23, 2));
  if (month == kMonths.end() || text[7] != ' ' || text[11] != ' ' || text[16] != ' ' ||
      text[19] != ':' || text[22] != ':' || fields.tm_mday < 1 || fields.tm_mday > 31 ||
      fields.tm_year < 70 || fields.tm_hour > 23 || fields.tm_min > 59 || fields.tm_sec > 60 ||
      fields.tm_hour < 0 || fields.tm_min < 0 || fields.tm_sec < 0) {
    return std::nullopt;
  }
  const std::time_t seconds = timegm(&fields);
  if (seconds == static_cast<std::time_t>(-1)) return std::nullopt;
  return std::chrono::system_clock::from_time_t(seconds);
}

}  // namespace orvex
