#include "tools/orvex-backend/request_log.h"

#include <algorithm>

namespace orvex::backend {

nlohmann::ordered_json LoggedRequest::toJson() const {
  nlohmann::ordered_json headerObject = nlohmann::ordered_json::object();
  for (const auto& [name, value] : headers) {
    auto& slot = headerObject[name];
    slot = slot.is_null() ? value : slot.get<std::string>() + ", " + value;
  }
  nlohmann::ordered_json items = nlohmann::ordered_json::array();
  for (const auto& [name, value] : queryItems) items.push_back({name, value});
  return {{"seq", seq},
          {"endpoint", endpoint ? nlohmann::ordered_json(*endpoint) : nullptr},
          {"method", method},
          {"path", path},
          {"query", query},
          {"query_items", std::move(items)},
          {"headers", std::move(headerObject)},
          {"body_size", bodySize},
          {"status", status}};
}

std::string LoggedRequest::toText() const {
  std::string text = method + " " + path;
  if (!query.empty()) text.append("?").append(query);
  text.append(" -> ").append(std::to_string(status)).append("\n");
  for (const auto& [name, value] : headers) {
    text.append("    ").append(name).append(": ").append(value).append("\n");
  }
  return text;
}

RequestLog::RequestLog(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {}

int64_t RequestLog::record(LoggedRequest request) {
  std::lock_guard lock(mutex_);
  request.seq = ++lastSeq_;
  if (entries_.size() == capacity_) entries_.pop_front();
  entries_.push_back(std::move(request));
  return lastSeq_;
}

std::vector<LoggedRequest> RequestLog::since(int64_t since) const {
  std::lock_guard lock(mutex_);
  // Numbers rise along the deque, so the wanted ones are a tail.
  const auto first = std::partition_point(entries_.begin(), entries_.end(),
                                          [&](const LoggedRequest& r) { return r.seq <= since; });
  return {first, entries_.end()};
}

void RequestLog::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

}  // namespace orvex::backend
