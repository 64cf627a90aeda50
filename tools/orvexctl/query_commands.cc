// orvexctl's queries: search, zero-keyword suggestions, more results, cards, lookups and
// flights, each printed for a person (or as the daemon's reply with --json), and the images
// answers name, saved to files.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>

#include "tools/orvex-backend/query_items.h"
#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {
namespace {

using nlohmann::json;

// How many results an answer shows before "... N more".
constexpr size_t kShownResults = 10;

// A result's title or description: a string, or an object carrying its text.
std::optional<std::string> textOf(const json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object()) {
    for (const char* key : {"text", "formatted_text", "title", "name"}) {
      if (auto it = value.find(key); it != value.end() && it->is_string())
        return it->get<std::string>();
    }
  }
  return std::nullopt;
}

void printHeaders(const ORVHeaderList& headers) {
  for (const auto& [name, value] : headers) std::cout << "    " << name << ": " << value << "\n";
}

// The first list of results in an answer: "results", else "suggestions", else "senses".
const json* resultList(const json& answer) {
  for (const char* key : {"results", "suggestions", "senses"}) {
    if (auto it = answer.find(key); it != answer.end() && it->is_array()) return &*it;
  }
  return nullptr;
}

// Prints what an answer holds: its query, its first results, where it came from.
void printAnswer(ORVRequestKind kind, const std::string& rawResponse) {
  auto response = json::parse(rawResponse, nullptr, false);
  if (response.is_discarded()) {
    std::cout << "answer (not JSON): " << rawResponse.substr(0, 200) << "\n";
    return;
  }
  if (kind == ORVRequestKind::kFlightSearch || kind == ORVRequestKind::kFlightLookup) {
    std::cout << response.size() << " flight" << (response.size() == 1 ? "" : "s") << "\n";
    for (const auto& flight : response) std::cout << "  " << flight.dump() << "\n";
    return;
  }
  // A search answered from the query cache, more results and cards come as an array holding
  // the answer.
  if (response.is_array()) {
    if (kind == ORVRequestKind::kSearch) std::cout << "from the query cache\n";
    response = response.empty() ? json::object() : response.front();
  }
  if (!response.is_object()) {
    std::cout << "answer: " << response.dump() << "\n";
    return;
  }
  for (const char* key : {"query", "title", "definition", "context"}) {
    if (auto it = response.find(key); it != response.end()) {
      if (auto text = textOf(*it)) std::cout << key << ": " << *text << "\n";
    }
  }
  const json* results = resultList(response);
  if (results == nullptr || results->empty()) {
    std::cout << "no results\n";
    return;
  }
  std::cout << results->size() << " result" << (results->size() == 1 ? "" : "s") << "\n";
  size_t shown = 0;
  for (const auto& result : *results) {
    if (shown++ == kShownResults) {
      std::cout << "  ... " << results->size() - kShownResults << " more (--json shows all)\n";
      break;
    }
    const auto title = textOf(result).value_or("(untitled)");
    const auto description = result.is_object() && result.contains("description")
                                 ? textOf(result["description"])
                                 : std::nullopt;
    std::cout << "  " << shown << ". " << title << "\n";
    if (description) std::cout << "     " << *description << "\n";
  }
}

json replyJson(const ORVReply& reply) {
  auto raw = json::parse(reply.rawResponse, nullptr, false);
  json out{{"scale", reply.scale},
           {"rawResponse", raw.is_discarded() ? json(reply.rawResponse) : raw},
           {"geoSessionEntityString", reply.geoSessionEntityString}};
  auto headers = [](const ORVHeaderList& list) {
    json object = json::object();
    for (const auto& [name, value] : list) object[name] = value;
    return object;
  };
  if (reply.httpRequest) {
    out["httpRequest"] = {{"url", reply.httpRequest->url},
                          {"method", reply.httpRequest->method},
                          {"headers", headers(reply.httpRequest->headers)}};
  }
  if (reply.httpResponse) {
    out["httpResponse"] = {{"url", reply.httpResponse->url},
                           {"statusCode", reply.httpResponse->statusCode},
                           {"headers", headers(reply.httpResponse->headers)}};
  }
  return out;
}

// The decoded query items of `url`.
std::vector<URLQueryItem> queryItemsOf(const std::string& url) {
  std::vector<URLQueryItem> items;
  const auto question = url.find('?');
  if (question == std::string::npos) return items;
  const auto end = url.find('#', question);
  for (auto& [name, value] :
       backend::decodeQueryItems(std::string_view(url).substr(question + 1, end - question - 1))) {
    items.push_back({std::move(name), std::move(value)});
  }
  return items;
}

// The request the command line asks for.
ORVRequest requestFor(const Options& options) {
  ORVRequest request;
  request.kind = *kindFromName(options.kind);
  request.queryId = options.queryId.value_or(1);
  request.clientQueryId = static_cast<uint64_t>(request.queryId);
  request.verboseReply = options.verbose;
  const std::string argument = options.arguments.empty() ? "" : options.arguments[0];
  switch (request.kind) {
    case ORVRequestKind::kSearch:
    case ORVRequestKind::kZeroKeyword:
      request.queryString = argument;
      break;
    case ORVRequestKind::kMoreResults:
      // The URL an answer named: its items go along, so the back-end knows what to continue.
      request.moreResultsURL = argument;
      request.queryItems = queryItemsOf(argument);
      break;
    case ORVRequestKind::kCard:
      request.queryString = argument;
      if (!argument.empty()) request.queryItems = {{"q", argument}};
      break;
    case ORVRequestKind::kLookup:
      request.queryString = argument;
      request.applicationBundleIdentifier = options.context.value_or(options.identifier);
      request.hintDomain = options.domain.value_or("");
      request.selectionType = kORVLookupSelectionExplicit;
      break;
    case ORVRequestKind::kFlightSearch:
      request.flightQuery = argument;
      break;
    case ORVRequestKind::kFlightLookup:
      request.flightId = options.flightId.value_or("");
      break;
  }
  return request;
}

}  // namespace

int runQuery(Session& session, const Options& options) {
  const ORVRequest request = requestFor(options);
  // More results and cards follow an answer: they go to the endpoint the configuration named.
  const bool followUp =
      request.kind == ORVRequestKind::kMoreResults || request.kind == ORVRequestKind::kCard;
  auto answer = followUp ? session.client().endpointRequest(request, session.configuration())
                         : session.client().request(request);
  if (!answer) return busFailure(followUp ? "Endpoint.Request" : "Request", answer.error());
  const QueryAnswer& result = answer.value();
  if (options.json) {
    printJson({{"queryId", result.queryId},
               {"reply", result.reply ? replyJson(*result.reply) : json(nullptr)},
               {"error", errorJson(result.error)}});
    return result.error ? kExitFailure : kExitOk;
  }
  std::cout << "query id " << result.queryId << "\n";
  if (result.reply) {
    printAnswer(request.kind, result.reply->rawResponse);
    if (options.verbose && result.reply->httpRequest) {
      std::cout << "request: " << result.reply->httpRequest->method << " "
                << result.reply->httpRequest->url << "\n";
      printHeaders(result.reply->httpRequest->headers);
    }
    if (options.verbose && result.reply->httpResponse) {
      std::cout << "response: " << result.reply->httpResponse->statusCode << " from "
                << result.reply->httpResponse->url << "\n";
      printHeaders(result.reply->httpResponse->headers);
    }
  } else if (!result.error) {
    std::cout << "no reply (nothing to show, or a newer query superseded this one)\n";
  }
  if (result.error) {
    std::cerr << "orvexctl: " << kindName(request.kind)
              << " failed: " << describeError(*result.error) << "\n";
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace orvex::ctl

namespace orvex::ctl {
namespace {

// What an image's first bytes say it is.
std::string imageTypeOf(const std::vector<uint8_t>& bytes) {
  const std::string_view head(reinterpret_cast<const char*>(bytes.data()),
                              std::min<size_t>(bytes.size(), 256));
  if (head.starts_with("\x89PNG\r\n\x1a\n")) return "image/png";
  if (head.starts_with("\xff\xd8\xff")) return "image/jpeg";
  if (head.starts_with("GIF87a") || head.starts_with("GIF89a")) return "image/gif";
  if (head.starts_with("RIFF") && head.substr(8, 4) == "WEBP") return "image/webp";
  if (head.find("<svg") != std::string_view::npos) return "image/svg+xml";
  return "application/octet-stream";
}

// A file name for the `index`th image: its number and the last part of its URL's path, with
// anything but letters, digits, '.', '-' and '_' replaced.
std::string fileNameFor(size_t index, const std::string& url) {
  std::string_view path(url);
  path = path.substr(0, path.find_first_of("?#"));
  std::string name(path.substr(path.find_last_of('/') + 1));
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_') c = '_';
  }
  if (name.empty() || name.front() == '.') name.insert(0, "image");
  return std::to_string(index + 1) + "-" + name;
}

// How long the daemon may take to fetch what it does not have yet.
constexpr std::chrono::milliseconds kImagesWait{5000};

}  // namespace

int runImages(Session& session, const Options& options) {
  std::vector<ImageDescription> images;
  for (const auto& url : options.arguments) images.push_back({url, std::nullopt, {}});
  auto answer = session.client().loadImages(images, options.timeout.value_or(kImagesWait));
  if (!answer) return busFailure("Endpoint.LoadImages", answer.error());
  const std::filesystem::path directory = options.outputDirectory.value_or(".");
  json listed = json::array();
  uint64_t total = 0;
  for (size_t i = 0; i < options.arguments.size(); ++i) {
    const auto& url = options.arguments[i];
    const auto found = answer.value().find(url);
    if (found == answer.value().end()) {
      listed.push_back({{"url", url}, {"bytes", nullptr}});
      if (!options.json) std::cout << "not returned  " << url << "\n";
      continue;
    }
    const auto& bytes = found->second;
    const auto file = directory / fileNameFor(i, url);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) {
      std::cerr << "orvexctl: cannot write " << file.string() << "\n";
      return kExitFailure;
    }
    total += bytes.size();
    const auto type = imageTypeOf(bytes);
    listed.push_back(
        {{"url", url}, {"bytes", bytes.size()}, {"type", type}, {"file", file.string()}});
    if (!options.json) {
      std::cout << bytes.size() << " bytes  " << type << "  " << file.string() << "  " << url
                << "\n";
    }
  }
  if (options.json) {
    printJson(listed);
  } else {
    std::cout << answer.value().size() << " of " << options.arguments.size() << " images, " << total
              << " bytes\n";
  }
  return kExitOk;
}

}  // namespace orvex::ctl
