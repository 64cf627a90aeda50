// The requests the back-end answered, kept in memory for the control API: the most recent
// `capacity` of them, numbered 1, 2, 3... in arrival order. Numbers keep counting across
// clear(). Safe to use from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/orvex-backend/endpoint_registry.h"

namespace orvex::backend {

struct LoggedRequest {
  int64_t seq = 0;
  std::optional<std::string> endpoint;  // none when no endpoint matched
  std::string method;
  std::string path;   // as on the wire, percent-encoding kept
  std::string query;  // everything after the first '?', as on the wire
  std::vector<std::pair<std::string, std::string>> queryItems;
  HeaderList headers;  // ordered by name, as the HTTP library keeps them
  size_t bodySize = 0;
  int status = 0;

  // {"seq", "endpoint", "method", "path", "query", "query_items", "headers", "body_size",
  //  "status"}; repeated headers are joined with ", ".
  nlohmann::ordered_json toJson() const;
  // "METHOD path?query -> status", then each header indented on a line of its own.
  std::string toText() const;
};

class RequestLog {
 public:
  explicit RequestLog(size_t capacity = 10'000);

  // Numbers `request`, keeps it and returns its number.
  int64_t record(LoggedRequest request);
  // The kept requests numbered above `since`, oldest first.
  std::vector<LoggedRequest> since(int64_t since) const;
  void clear();

 private:
  const size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<LoggedRequest> entries_;
  int64_t lastSeq_ = 0;
};

}  // namespace orvex::backend
