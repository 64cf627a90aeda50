#include "tools/orvex-backend/fault.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace orvex::backend {

namespace {

// A delay longer than this is a typo, not a test.
constexpr int64_t kMaxDelayMs = 3'600'000;

int64_t integerIn(const nlohmann::json& value, const std::string& key, int64_t min, int64_t max) {
  const auto outOfRange = [&] {
    return std::invalid_argument("\"" + key + "\" must be an integer from " + std::to_string(min) +
                                 " to " + std::to_string(max));
  };
  if (!value.is_number_integer()) throw outOfRange();
  if (value.is_number_unsigned() &&
      value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    throw outOfRange();
  }
  const auto number = value.get<int64_t>();
  if (number < min || number > max) throw outOfRange();
  return number;
}

bool boolean(const nlohmann::json& value, const std::string& key) {
  if (!value.is_boolean()) throw std::invalid_argument("\"" + key + "\" must be true or false");
  return value.get<bool>();
}

bool isHeaderName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
  });
}

bool isHeaderValue(const std::string& value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

}  // namespace

Fault Fault::fromJson(const nlohmann::json& json) {
  if (!json.is_object()) throw std::invalid_argument("a fault must be a JSON object");
  Fault fault;
  for (const auto& [key, value] : json.items()) {
    if (key == "status") {
      fault.status = static_cast<int>(integerIn(value, key, 100, 599));
    } else if (key == "delay_ms") {
      fault.delay = std::chrono::milliseconds(integerIn(value, key, 0, kMaxDelayMs));
    } else if (key == "drip_ms") {
      fault.drip = std::chrono::milliseconds(integerIn(value, key, 0, kMaxDelayMs));
    } else if (key == "drop") {
      fault.drop = boolean(value, key);
    } else if (key == "garbage") {
      fault.garbage = boolean(value, key);
    } else if (key == "body") {
      if (!value.is_string()) throw std::invalid_argument("\"body\" must be a string");
      fault.body = value.get<std::string>();
    } else if (key == "headers") {
      if (!value.is_object()) {
        throw std::invalid_argument("\"headers\" must be an object of strings");
      }
      for (const auto& [name, headerValue] : value.items()) {
        if (!isHeaderName(name)) {
          throw std::invalid_argument("\"headers\": \"" + name + "\" is not a header name");
        }
        if (!headerValue.is_string() || !isHeaderValue(headerValue.get<std::string>())) {
          throw std::invalid_argument("\"headers\": the value of \"" + name +
                                      "\" must be a string without line breaks");
        }
        fault.headers.emplace_back(name, headerValue.get<std::string>());
      }
    } else if (key == "count") {
      fault.count = integerIn(value, key, 1, std::numeric_limits<int64_t>::max());
    } else {
      throw std::invalid_argument("unknown fault key \"" + key +
                                  "\" (known: status, delay_ms, drip_ms, drop, garbage, body, "
                                  "headers, count)");
    }
  }
  return fault;
}

nlohmann::json Fault::toJson() const {
  nlohmann::json json = nlohmann::json::object();
  if (status) json["status"] = *status;
  if (delay.count() > 0) json["delay_ms"] = delay.count();
  if (drip.count() > 0) json["drip_ms"] = drip.count();
  if (drop) json["drop"] = true;
  if (garbage) json["garbage"] = true;
  if (body) json["body"] = *body;
  if (!headers.empty()) {
    json["headers"] = nlohmann::json::object();
    for (const auto& [name, value] : headers) json["headers"][name] = value;
  }
  if (count) json["count"] = *count;
  return json;
}

}  // namespace orvex::backend
