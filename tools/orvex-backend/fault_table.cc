#include "tools/orvex-backend/fault_table.h"

namespace orvex::backend {

void FaultTable::set(const std::string& endpoint, Fault fault) {
  std::lock_guard lock(mutex_);
  faults_.insert_or_assign(endpoint, std::move(fault));
}

void FaultTable::clear(const std::string& endpoint) {
  std::lock_guard lock(mutex_);
  faults_.erase(endpoint);
}

void FaultTable::clearAll() {
  std::lock_guard lock(mutex_);
  faults_.clear();
}

std::optional<Fault> FaultTable::takeFor(const std::string& endpoint) {
  std::lock_guard lock(mutex_);
  const auto found = faults_.find(endpoint);
  if (found == faults_.end()) return std::nullopt;
  Fault fault = found->second;
  if (found->second.count && --*found->second.count == 0) faults_.erase(found);
  return fault;
}

nlohmann::json FaultTable::toJson() const {
  std::lock_guard lock(mutex_);
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [endpoint, fault] : faults_) json[endpoint] = fault.toJson();
  return json;
}

}  // namespace orvex::backend
