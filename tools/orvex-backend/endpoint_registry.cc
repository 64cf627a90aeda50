#include "tools/orvex-backend/endpoint_registry.h"

#include <algorithm>
#include <stdexcept>

namespace orvex::backend {

void EndpointRegistry::add(Endpoint endpoint) {
  if (contains(endpoint.name)) {
    throw std::invalid_argument("endpoint '" + endpoint.name + "' is registered twice");
  }
  if (find(endpoint.method, endpoint.path) != nullptr) {
    throw std::invalid_argument(endpoint.method + " " + endpoint.path + " has two endpoints");
  }
  endpoints_.push_back(std::move(endpoint));
}

const Endpoint* EndpointRegistry::find(std::string_view method, std::string_view path) const {
  const std::string_view wanted = method == "HEAD" ? "GET" : method;
  const auto found = std::find_if(endpoints_.begin(), endpoints_.end(), [&](const Endpoint& e) {
    return e.method == wanted && e.path == path;
  });
  return found == endpoints_.end() ? nullptr : &*found;
}

bool EndpointRegistry::contains(std::string_view name) const {
  return std::any_of(endpoints_.begin(), endpoints_.end(),
                     [&](const Endpoint& e) { return e.name == name; });
}

std::vector<std::string> EndpointRegistry::names() const {
  std::vector<std::string> names;
  for (const Endpoint& endpoint : endpoints_) names.push_back(endpoint.name);
  return names;
}

}  // namespace orvex::backend
