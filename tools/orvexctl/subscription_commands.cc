// orvexctl subscriptions: the device's subscription registry, with orvexctl as the provider
// (the daemon names it as it names any caller: its executable, "orvexctl", outside Flatpak and
// app units).
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {

bool subscriptionsArgumentsValid(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return false;
  const std::string& action = arguments[0];
  if (action == "list" || action == "withdraw") return arguments.size() == 1;
  if (action == "publish" || action == "account-status") return arguments.size() == 2;
  return false;
}

int runSubscriptions(Session& session, const Options& options) {
  OrvexClient& client = session.client();
  const std::string& action = options.arguments[0];
  if (action == "publish" || action == "withdraw" || action == "account-status") {
    ClientResult<Empty> done = Empty{};
    if (action == "publish") {
      done = client.publishSubscription(options.arguments[1]);
    } else if (action == "withdraw") {
      done = client.withdrawSubscription();
    } else {
      char* end = nullptr;
      const unsigned long status = std::strtoul(options.arguments[1].c_str(), &end, 10);
      if (*end != '\0' || options.arguments[1].empty() || status > UINT32_MAX) {
        throw UsageError{"account-status needs a number from 0 to 4294967295"};
      }
      done = client.setAccountStatus(static_cast<uint32_t>(status));
    }
    if (!done) return busFailure("Subscriptions", done.error());
  }
  // Every action ends by showing what the next search carries.
  auto listed = client.listSubscriptions();
  if (!listed) return busFailure("List", listed.error());
  const auto subscriptions = nlohmann::json::parse(listed.value(), nullptr, false);
  if (options.json || !subscriptions.is_array()) {
    std::cout << listed.value() << "\n";
    return kExitOk;
  }
  if (subscriptions.empty()) std::cout << "no active subscriptions\n";
  for (const auto& entry : subscriptions) {
    std::cout << entry.value("provider", "?") << "  "
              << entry.value("type", entry.value("attribute", "?"));
    if (entry.contains("domain")) std::cout << "  " << entry.value("domain", "");
    std::cout << "\n";
  }
  return kExitOk;
}

}  // namespace orvex::ctl
