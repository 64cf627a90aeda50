// Feeds arbitrary bytes to the bag: the fetched document read as JSON, made into a bag for the
// user agent the first byte picks, every accessor asked, and the disk copy the bag controller
// keeps (a binary property list) read back into a bag that must answer the same.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/json_limits.h"
#include "orvexd/base/json_property_list.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/time_types.h"
#include "orvexd/model/orv_bag.h"

namespace {

using orvex::fuzz::check;

// Everything the daemon asks a bag, in one text.
std::string answers(const orvex::ORVBag& bag) {
  std::ostringstream out;
  const auto put = [&out](const auto& value) {
    if constexpr (requires { value.has_value(); }) {
      if (value) out << *value;
      out << '|';
    } else if constexpr (requires { value.begin(); } &&
                         !std::is_convertible_v<decltype(value), std::string_view>) {
      for (const auto& element : value) {
        if constexpr (requires { element.first; }) {
          out << element.first << '=' << element.second << ',';
        } else {
          out << element << ',';
        }
      }
      out << '|';
    } else {
      out << value << '|';
    }
  };
  put(bag.version());
  put(bag.isEnabled());
  put(bag.searchURL());
  put(bag.moreResultsURL());
  put(bag.cardURL());
  put(bag.warmURL());
  put(bag.feedbackURL());
  put(bag.crowdsourcingURL());
  put(bag.feedbackEnabled());
  put(bag.feedbackTypes());
  put(bag.timeoutIntervalForRequest());
  // As the request factory and the flows turn the bag's durations into timeouts.
  for (const auto seconds :
       {bag.timeoutIntervalForRequest(), bag.searchRenderTimeout(), bag.subscriptionTTL()}) {
    if (seconds)
      out << std::chrono::duration_cast<orvex::Duration>(std::chrono::duration<double>(*seconds))
                 .count();
  }
  put(bag.searchRenderTimeout());
  put(bag.minimumQueryLength());
  put(bag.supportedGeoLocationSources());
  put(bag.sendGeoEnvironmentHeader());
  put(bag.subscriptionTTL());
  put(bag.subscriptionProviderDomainWhitelist());
  put(bag.subscriptionProviderBundleIdentifierWhitelist());
  put(bag.lookupEnabled());
  put(bag.resources());
  put(bag.urlForIdentifier("logo"));
  put(bag.stringForKey("lookup_hints_url"));
  return out.str();
}

const char* const kAgents[] = {"Glance/1", orvex::kORVNewsUserAgent, orvex::kORVOrvexdNameVersion,
                               "messages/2", ""};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string agent = kAgents[data[0] % std::size(kAgents)];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  auto document = orvex::parseJsonWithinLimits<orvex::BagDictionary>(
      text, {size_t{1} << 20, orvex::kJsonMaxDepth});
  if (document.is_discarded()) return 0;

  const auto bag = orvex::ORVBag::initWithDictionary(document, agent);
  check((bag != nullptr) == document.is_object());
  if (!bag) return 0;
  check(bag->rawBag() == document && bag->userAgent() == agent);
  const std::string answered = answers(*bag);

  // The disk copy: refused only for a string holding NUL; else it reads back as the same bag.
  std::string why;
  const auto copy = orvex::binaryPropertyListFromJson(document, &why);
  if (copy.empty()) return 0;
  const auto stored = orvex::jsonFromPropertyList(copy, &why);
  check(stored.has_value() && stored->is_object());
  const auto reloaded = orvex::ORVBag::initWithDictionary(*stored, agent);
  check(reloaded != nullptr && answers(*reloaded) == answered);
  return 0;
}
