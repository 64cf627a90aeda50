// Feeds arbitrary bytes to the subscription information reader as a provider's description, as
// JSON or key-value list: a reading must hold a bounded, non-empty type, a lifetime within the
// reader's range and a value that the subscriptions header can encode; a refusal must say why.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/text_util.h"
#include "orvexd/network/orvex_subscription_info.h"
#include "orvexd/platform/virtual_clock.h"

namespace {

using orvex::OrvexSubscriptionInfo;
using orvex::fuzz::check;

// A century and a day: the reader keeps lifetimes within a century either way.
constexpr auto kLongest = std::chrono::hours(24 * (100 * 365 + 1));

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static orvex::VirtualClock clock;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string failure;
  const auto info = OrvexSubscriptionInfo::initWithString(text, clock, &failure);
  if (!info) {
    check(!failure.empty());
  } else {
    check(!info->type().empty() && info->type().size() <= OrvexSubscriptionInfo::kMaxValueBytes);
    check(orvex::isValidUtf8(info->type()));
    check(info->expirationDate() <= clock.wallNow() + kLongest);
    check(info->expirationDate() >= clock.wallNow() - kLongest);
    nlohmann::json entry{{"provider", "fuzz"}, {"type", info->type()}, {"active", true}};
    if (info->domain()) {
      check(!info->domain()->empty() && orvex::isValidUtf8(*info->domain()));
      entry["domain"] = *info->domain();
    }
    // The header's encoding is strict about UTF-8: this throws on anything it cannot write.
    check(!nlohmann::json::array({entry}).dump().empty());
  }
  // The list reader alone, on the same bytes: every value it gives is a non-empty string.
  if (const auto pairs = OrvexSubscriptionInfo::dictionaryWithKeyValuePairListString(text)) {
    check(pairs->size() <= OrvexSubscriptionInfo::kMaxPairs);
    for (const auto& [key, value] : pairs->items()) {
      check(!key.empty() && value.is_string() && !value.get_ref<const std::string&>().empty());
    }
  }
  return 0;
}
