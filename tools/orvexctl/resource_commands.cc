// resources and resource ID: the bag's data files the daemon keeps, through
// FileHandleAndAttributesForResource. The daemon has no list call, so `resources` asks for each
// of the resource keys in turn.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "tools/orvex-backend/query_items.h"
#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {
namespace {

using nlohmann::json;

// The URL's "version" query item; "" when it has none.
std::string versionOf(const std::string& url) {
  const size_t question = url.find('?');
  if (question == std::string::npos) return "";
  for (const auto& [name, value] : backend::decodeQueryItems(url.substr(question + 1))) {
    if (name == "version") return value;
  }
  return "";
}

int64_t ageSeconds(int64_t modified) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count() - modified;
}

// "45s", "12m", "3h", "2d".
std::string describeAge(int64_t seconds) {
  if (seconds < 120) return std::to_string(seconds) + "s";
  if (seconds < 7200) return std::to_string(seconds / 60) + "m";
  if (seconds < 172800) return std::to_string(seconds / 3600) + "h";
  return std::to_string(seconds / 86400) + "d";
}

}  // namespace

int runResources(Session& session, const Options& options) {
  json listed = json::array();
  for (const auto key : kORVResourceKeys) {
    const std::string identifier(key);
    auto file = session.client().fileHandleAndAttributesForResource(identifier);
    if (!file) return busFailure("FileHandleAndAttributesForResource", file.error());
    const ResourceFile& found = file.value();
    if (!found.fd) {
      listed.push_back({{"identifier", identifier}, {"error", errorJson(found.error)}});
      continue;
    }
    const auto& attributes = found.attributes;
    listed.push_back({{"identifier", identifier},
                      {"url", attributes.url},
                      {"version", versionOf(attributes.url)},
                      {"size", attributes.size},
                      {"modified", attributes.modified},
                      {"age", ageSeconds(attributes.modified)}});
  }
  if (options.json) {
    printJson(listed);
    return kExitOk;
  }
  for (const auto& entry : listed) {
    std::cout << entry["identifier"].get<std::string>() << "\n";
    if (entry.contains("error")) {
      std::cout << "  none: " << entry["error"].value("reason", std::string()) << "\n";
      continue;
    }
    const std::string version = entry["version"].get<std::string>();
    std::cout << "  " << entry["size"].get<uint64_t>() << " bytes, "
              << describeAge(entry["age"].get<int64_t>()) << " old, version "
              << (version.empty() ? "-" : version) << "\n  " << entry["url"].get<std::string>()
              << "\n";
  }
  return kExitOk;
}

int runResource(Session& session, const Options& options) {
  const std::string& identifier = options.arguments[0];
  auto file = session.client().fileHandleAndAttributesForResource(identifier);
  if (!file) return busFailure("FileHandleAndAttributesForResource", file.error());
  ResourceFile& found = file.value();
  if (!found.fd) {
    std::cerr << "orvexctl: no resource file " << identifier << ": "
              << (found.error ? describeError(*found.error) : std::string("no descriptor")) << "\n";
    return kExitFailure;
  }
  UniqueFd output(options.outputDirectory ? ::open(options.outputDirectory->c_str(),
                                                   O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)
                                          : ::dup(STDOUT_FILENO));
  if (!output) {
    std::cerr << "orvexctl: cannot write " << options.outputDirectory.value_or("standard output")
              << ": " << std::strerror(errno) << "\n";
    return kExitFailure;
  }
  // Copied from the daemon's descriptor as it is: no more than the file holds.
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(found.fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      std::cerr << "orvexctl: cannot read the resource: " << std::strerror(errno) << "\n";
      return kExitFailure;
    }
    if (got == 0) break;
    if (writeAll(output.get(), std::string_view(buffer, static_cast<size_t>(got)))) {
      std::cerr << "orvexctl: cannot write the resource: " << std::strerror(errno) << "\n";
      return kExitFailure;
    }
  }
  if (output.close()) {
    std::cerr << "orvexctl: cannot write the resource\n";
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace orvex::ctl
