// The faults in force, one per endpoint name. Safe to use from any thread.
#pragma once

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/orvex-backend/fault.h"

namespace orvex::backend {

class FaultTable {
 public:
  // Replaces the endpoint's fault.
  void set(const std::string& endpoint, Fault fault);
  void clear(const std::string& endpoint);
  void clearAll();

  // The fault that applies to one request of `endpoint`, counting that request against the
  // fault's "count" and removing the fault once it is spent.
  std::optional<Fault> takeFor(const std::string& endpoint);

  // {"<endpoint>": <fault>, ...}, counts showing the requests left.
  nlohmann::json toJson() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Fault> faults_;
};

}  // namespace orvex::backend
