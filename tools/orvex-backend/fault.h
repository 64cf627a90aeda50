// A fault to inject into the answers of one endpoint, and its JSON form:
//   {"status": 503, "delay_ms": 250, "drip_ms": 1000, "drop": true, "garbage": true,
//    "body": "[]", "headers": {"X-Name": "value"}, "count": 2}
// Every key is optional. "count" limits the fault to that many requests; without it the fault
// stays until cleared.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvex::backend {

struct Fault {
  // Throws std::invalid_argument, naming the key at fault, for unknown keys, wrong types and
  // values out of range.
  static Fault fromJson(const nlohmann::json& json);
  nlohmann::json toJson() const;

  std::optional<int> status;
  std::chrono::milliseconds delay{0};
  // Sends the body one byte at a time, this far apart: an answer that never quite stalls.
  std::chrono::milliseconds drip{0};
  bool drop = false;
  bool garbage = false;
  std::optional<std::string> body;
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<int64_t> count;  // requests left; none = until cleared
};

}  // namespace orvex::backend
