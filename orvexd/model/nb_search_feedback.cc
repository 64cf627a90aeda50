#include "orvexd/model/nb_search_feedback.h"

#include "orvexd/base/http_types.h"
#include "orvexd/model/network_timing_formatter.h"

namespace orvex {

void NBEndNetworkSearchFeedback::uploadTimingData(const NBEndNetworkSearchFeedback& record,
                                                  FeedbackDictionary& d) {
  if (!d.nullUnless("network_timing_data", record.networkTimingData)) return;
  const PlistDictionary& timing = *record.networkTimingData;
  d.set("network_timing_data", formatNetworkTimingData(timing));
  const auto entry = [&timing](std::string_view name) -> const PlistValue* {
    const auto found = timing.find(std::string(kTaskTimingPrefix) + std::string(name));
    return found == timing.end() ? nullptr : &found->second;
  };
  bool reused = false;
  if (const PlistValue* value = entry(kTimingConnectionReused)) {
    if (auto flag = value->asBool()) {
      reused = *flag;
    } else if (auto number = value->asDouble()) {
      reused = *number != 0;
    }
  }
  d.set("connection_reused", reused);
  if (const PlistValue* value = entry(kTimingInterfaceIdentifier)) {
    if (const std::string* name = value->asString(); name != nullptr && !name->empty()) {
      d.set("interface", *name);
    }
  }
  if (const PlistValue* value = entry(kTimingPeerAddress)) {
    if (const PlistData* bytes = value->asData()) {
      if (std::string address = formatPeerAddress(*bytes); !address.empty()) {
        d.set("peer_address", std::move(address));
      }
    }
  }
}

}  // namespace orvex
