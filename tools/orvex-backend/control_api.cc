#include "tools/orvex-backend/control_api.h"

#include <charconv>
#include <stdexcept>
#include <variant>

#include "tools/orvex-backend/query_items.h"

namespace orvex::backend {

namespace {

EndpointReply text(int status, std::string message) {
  return {status, "text/plain", std::move(message) + "\n", {}};
}

EndpointReply noContent() { return {204, "", "", {}}; }

template <typename Json>
EndpointReply json(const Json& value) {
  // Logged requests may carry bytes that are not UTF-8; they are shown replaced, not refused.
  return {200,
          "application/json",
          value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
          {}};
}

// The query item "since" of a listing (0 without one), or a 400 answer naming what is wrong.
std::variant<int64_t, EndpointReply> sinceIn(std::string_view rawQuery, std::string_view what) {
  int64_t since = 0;
  for (const auto& [name, value] : decodeQueryItems(rawQuery)) {
    if (name != "since") continue;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), since);
    if (error != std::errc() || end != value.data() + value.size() || since < 0) {
      return text(400,
                  "since must be " + std::string(what) + " (0 or more), not \"" + value + "\"");
    }
  }
  return since;
}

EndpointReply methodNotAllowed(const std::string& allowed) {
  auto reply = text(405, "allowed methods: " + allowed);
  reply.headers.emplace_back("Allow", allowed);
  return reply;
}

}  // namespace

EndpointReply ControlApi::handle(const std::string& method, const std::string& path,
                                 std::string_view rawQuery, const std::string& body) {
  const std::string resource = path.substr(kPrefix.size());
  if (resource == "faults") return handleFaults(method);
  if (resource.starts_with("faults/")) {
    return handleEndpointFault(method, resource.substr(sizeof("faults/") - 1), body);
  }
  if (resource == "requests") return handleRequests(method, rawQuery);
  if (resource == "feedback") return handleFeedback(method, rawQuery);
  return text(404, "no control resource " + path +
                       " (there are /_orvex/faults, /_orvex/faults/<endpoint>, "
                       "/_orvex/requests and /_orvex/feedback)");
}

EndpointReply ControlApi::handleFaults(const std::string& method) {
  if (method == "GET") return json(faults_.toJson());
  if (method == "DELETE") {
    faults_.clearAll();
    return noContent();
  }
  return methodNotAllowed("GET, DELETE");
}

EndpointReply ControlApi::handleEndpointFault(const std::string& method,
                                              const std::string& endpoint,
                                              const std::string& body) {
  if (!endpoints_.contains(endpoint)) {
    std::string known;
    for (const auto& name : endpoints_.names()) known += (known.empty() ? "" : ", ") + name;
    return text(404, "no endpoint named \"" + endpoint + "\" (endpoints: " + known + ")");
  }
  if (method == "DELETE") {
    faults_.clear(endpoint);
    return noContent();
  }
  if (method != "PUT") return methodNotAllowed("PUT, DELETE");
  nlohmann::json parsed;
  try {
    parsed = nlohmann::json::parse(body);
  } catch (const nlohmann::json::parse_error& error) {
    return text(400, std::string("the fault is not valid JSON: ") + error.what());
  }
  try {
    faults_.set(endpoint, Fault::fromJson(parsed));
  } catch (const std::invalid_argument& error) {
    return text(400, std::string("bad fault: ") + error.what());
  }
  return noContent();
}

namespace {

// A list of the control API: GET answers what came after ?since=N, DELETE clears it.
template <class List, class Clear>
EndpointReply listOrClear(const std::string& method, std::string_view rawQuery,
                          const char* numberName, List list, Clear clear) {
  if (method == "DELETE") {
    clear();
    return noContent();
  }
  if (method != "GET") return methodNotAllowed("GET, DELETE");
  const auto since = sinceIn(rawQuery, numberName);
  if (const auto* refused = std::get_if<EndpointReply>(&since)) return *refused;
  return json(list(std::get<int64_t>(since)));
}

}  // namespace

EndpointReply ControlApi::handleRequests(const std::string& method, std::string_view rawQuery) {
  return listOrClear(
      method, rawQuery, "a request number",
      [this](int64_t since) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const LoggedRequest& request : log_.since(since)) list.push_back(request.toJson());
        return list;
      },
      [this] { log_.clear(); });
}

EndpointReply ControlApi::handleFeedback(const std::string& method, std::string_view rawQuery) {
  return listOrClear(
      method, rawQuery, "an upload id", [this](int64_t since) { return feedback_.list(since); },
      [this] { feedback_.clear(); });
}

}  // namespace orvex::backend
