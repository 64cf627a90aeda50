#include "orvexd/client/dbus_forms.h"

#include <array>
#include <utility>
#include <vector>

namespace orvex::dbus {

namespace {

using StringPairs = std::vector<sdbus::Struct<std::string, std::string>>;
using StringMap = std::map<std::string, std::string>;

constexpr std::array<std::pair<ORVRequestKind, std::string_view>, 7> kKindNames = {{
    {ORVRequestKind::kSearch, "search"},
    {ORVRequestKind::kZeroKeyword, "zeroKeyword"},
    {ORVRequestKind::kMoreResults, "moreResults"},
    {ORVRequestKind::kCard, "card"},
    {ORVRequestKind::kLookup, "lookup"},
    {ORVRequestKind::kFlightSearch, "flightSearch"},
    {ORVRequestKind::kFlightLookup, "flightLookup"},
}};

// Reads typed values out of one dictionary, remembering the first key of the wrong type.
class Reader {
 public:
  explicit Reader(const Dict& form) : form_(form) {}

  template <typename T>
  void read(const char* key, T& into) {
    const auto it = form_.find(key);
    if (it == form_.end()) return;
    if (!it->second.containsValueOfType<T>()) {
      if (problem_.empty()) {
        problem_ = std::string("\"") + key + "\" must be of type " + sdbus::signature_of<T>::str();
      }
      return;
    }
    into = it->second.get<T>();
  }

  const std::string& problem() const { return problem_; }

 private:
  const Dict& form_;
  std::string problem_;
};

StringMap headersToMap(const ORVHeaderList& headers) {
  StringMap map;
  for (const auto& [name, value] : headers) map[name] = value;
  return map;
}

ORVHeaderList headersFromMap(const StringMap& map) { return ORVHeaderList(map.begin(), map.end()); }

}  // namespace

std::string_view kindName(ORVRequestKind kind) {
  for (const auto& [k, name] : kKindNames) {
    if (k == kind) return name;
  }
  return {};
}

std::optional<ORVRequestKind> kindFromName(std::string_view name) {
  for (const auto& [kind, n] : kKindNames) {
    if (n == name) return kind;
  }
  return std::nullopt;
}

Dict toDBus(const ORVSessionConfiguration& configuration) {
  return {{"identifier", sdbus::Variant(configuration.identifier)},
          {"userAgent", sdbus::Variant(configuration.userAgent)},
          {"dontPreloadImages", sdbus::Variant(configuration.dontPreloadImages)}};
}

std::optional<ORVSessionConfiguration> configurationFromDBus(const Dict& form,
                                                             std::string* problem) {
  ORVSessionConfiguration configuration;
  Reader reader(form);
  reader.read("identifier", configuration.identifier);
  reader.read("userAgent", configuration.userAgent);
  reader.read("dontPreloadImages", configuration.dontPreloadImages);
  if (!reader.problem().empty()) {
    if (problem != nullptr) *problem = reader.problem();
    return std::nullopt;
  }
  return configuration;
}

Dict toDBus(const ORVRequest& request) {
  Dict form{{"kind", sdbus::Variant(std::string(kindName(request.kind)))},
            {"queryString", sdbus::Variant(request.queryString)},
            {"queryId", sdbus::Variant(request.queryId)},
            {"clientQueryId", sdbus::Variant(request.clientQueryId)},
            {"triggerEvent", sdbus::Variant(request.triggerEvent)},
            {"scale", sdbus::Variant(request.scale)},
            {"keyboardInputMode", sdbus::Variant(request.keyboardInputMode)},
            {"verboseReply", sdbus::Variant(request.verboseReply)}};
  if (!request.queryItems.empty()) {
    StringPairs items;
    for (const auto& item : request.queryItems) items.emplace_back(item.name, item.value);
    form["queryItems"] = sdbus::Variant(items);
  }
  switch (request.kind) {
    case ORVRequestKind::kSearch:
      form["topics"] = sdbus::Variant(request.topics);
      break;
    case ORVRequestKind::kMoreResults:
      form["moreResultsURL"] = sdbus::Variant(request.moreResultsURL);
      break;
    case ORVRequestKind::kLookup:
      form["applicationBundleIdentifier"] = sdbus::Variant(request.applicationBundleIdentifier);
      form["hintDomain"] = sdbus::Variant(request.hintDomain);
      form["selectionType"] = sdbus::Variant(request.selectionType);
      form["contextText"] = sdbus::Variant(request.contextText);
      break;
    case ORVRequestKind::kFlightSearch:
      form["flightQuery"] = sdbus::Variant(request.flightQuery);
      break;
    case ORVRequestKind::kFlightLookup:
      form["flightId"] = sdbus::Variant(request.flightId);
      break;
    case ORVRequestKind::kZeroKeyword:
    case ORVRequestKind::kCard:
      break;
  }
  return form;
}

RequestForm requestFromDBus(const Dict& form) {
  RequestForm result;
  Reader reader(form);
  std::string kind;
  reader.read("kind", kind);
  const auto parsedKind = kindFromName(kind);
  if (!reader.problem().empty()) {
    result.problem = reader.problem();
    return result;
  }
  if (!parsedKind) {
    result.unknownKind = true;
    return result;
  }
  ORVRequest request;
  request.kind = *parsedKind;
  reader.read("queryString", request.queryString);
  reader.read("queryId", request.queryId);
  reader.read("clientQueryId", request.clientQueryId);
  reader.read("triggerEvent", request.triggerEvent);
  reader.read("scale", request.scale);
  reader.read("keyboardInputMode", request.keyboardInputMode);
  reader.read("verboseReply", request.verboseReply);
  StringPairs items;
  reader.read("queryItems", items);
  for (const auto& item : items) request.queryItems.push_back({item.get<0>(), item.get<1>()});
  reader.read("topics", request.topics);
  reader.read("moreResultsURL", request.moreResultsURL);
  reader.read("applicationBundleIdentifier", request.applicationBundleIdentifier);
  reader.read("hintDomain", request.hintDomain);
  reader.read("selectionType", request.selectionType);
  reader.read("contextText", request.contextText);
  reader.read("flightQuery", request.flightQuery);
  reader.read("flightId", request.flightId);
  if (!reader.problem().empty()) {
    result.problem = reader.problem();
    return result;
  }
  result.request = std::move(request);
  return result;
}

Dict toDBus(const std::optional<ORVReply>& reply) {
  if (!reply) return {};
  Dict form{{"scale", sdbus::Variant(reply->scale)},
            {"rawResponse", sdbus::Variant(reply->rawResponse)},
            {"geoSessionEntityString", sdbus::Variant(reply->geoSessionEntityString)}};
  if (reply->httpRequest) {
    form["httpRequest"] = sdbus::Variant(
        Dict{{"url", sdbus::Variant(reply->httpRequest->url)},
             {"method", sdbus::Variant(reply->httpRequest->method)},
             {"headers", sdbus::Variant(headersToMap(reply->httpRequest->headers))}});
  }
  if (reply->httpResponse) {
    form["httpResponse"] = sdbus::Variant(
        Dict{{"url", sdbus::Variant(reply->httpResponse->url)},
             {"statusCode", sdbus::Variant(reply->httpResponse->statusCode)},
             {"headers", sdbus::Variant(headersToMap(reply->httpResponse->headers))}});
  }
  return form;
}

std::optional<ORVReply> replyFromDBus(const Dict& form) {
  if (form.empty()) return std::nullopt;
  ORVReply reply;
  Reader reader(form);
  reader.read("scale", reply.scale);
  reader.read("rawResponse", reply.rawResponse);
  reader.read("geoSessionEntityString", reply.geoSessionEntityString);
  Dict httpRequest;
  reader.read("httpRequest", httpRequest);
  if (!httpRequest.empty()) {
    ORVHttpRequestInfo info;
    StringMap headers;
    Reader nested(httpRequest);
    nested.read("url", info.url);
    nested.read("method", info.method);
    nested.read("headers", headers);
    info.headers = headersFromMap(headers);
    reply.httpRequest = std::move(info);
  }
  Dict httpResponse;
  reader.read("httpResponse", httpResponse);
  if (!httpResponse.empty()) {
    ORVHttpResponseInfo info;
    StringMap headers;
    Reader nested(httpResponse);
    nested.read("url", info.url);
    nested.read("statusCode", info.statusCode);
    nested.read("headers", headers);
    info.headers = headersFromMap(headers);
    reply.httpResponse = std::move(info);
  }
  return reply;
}

Dict toDBus(const std::optional<OrvexError>& error) {
  if (!error) return {};
  return {{"domain", sdbus::Variant(error->domain)},
          {"code", sdbus::Variant(error->code)},
          {"reason", sdbus::Variant(error->reason)}};
}

std::optional<OrvexError> errorFromDBus(const Dict& form) {
  if (form.empty()) return std::nullopt;
  OrvexError error;
  Reader reader(form);
  reader.read("domain", error.domain);
  reader.read("code", error.code);
  reader.read("reason", error.reason);
  return error;
}

}  // namespace orvex::dbus
