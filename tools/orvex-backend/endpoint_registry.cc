#include "tools/orvex-backend/endpoint_registry.h"

#include <strings.h>

#include <algorithm>
#include <stdexcept>

namespace orvex::backend {

std::optional<std::string> EndpointRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && strncasecmp(key.c_str(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

void EndpointRegistry::add(Endpoint endpoint) {
  if (contains(endpoint.name)) {
    throw std::invalid_argument("endpoint '" + endpoint.name + "' is registered twice");
  }
  if (endpoint.match == PathMatch::kPrefix && !endpoint.path.ends_with('/')) {
    throw std::invalid_argument("the prefix of endpoint '" + endpoint.name + "' must end in '/'");
  }
  const bool taken = std::any_of(endpoints_.begin(), endpoints_.end(), [&](const Endpoint& e) {
    return e.method == endpoint.method && e.path == endpoint.path && e.match == endpoint.match;
  });
  if (taken)
    throw std::invalid_argument(endpoint.method + " " + endpoint.path + " has two endpoints");
  endpoints_.push_back(std::move(endpoint));
}

const Endpoint* EndpointRegistry::find(std::string_view method, std::string_view path) const {
  const std::string_view wanted = method == "HEAD" ? "GET" : method;
  const Endpoint* best = nullptr;
  for (const Endpoint& e : endpoints_) {
    if (e.method != wanted) continue;
    if (e.match == PathMatch::kExact) {
      if (e.path == path) return &e;
    } else if (path.starts_with(e.path) && (best == nullptr || e.path.size() > best->path.size())) {
      best = &e;
    }
  }
  return best;
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
