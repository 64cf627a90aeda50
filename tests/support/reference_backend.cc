#include "tests/support/reference_backend.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orvex::testing {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kListeningLine = "orvex-backend listening on ";

}  // namespace

ReferenceBackend::ReferenceBackend(const std::filesystem::path& bag,
                                   const std::vector<std::string>& extraArguments,
                                   std::chrono::milliseconds watchdog) {
  const auto portFile = dir_ / "port";
  std::vector<std::string> argv = {ORVEX_BACKEND_BINARY, "--port", "0",         "--port-file",
                                   portFile.string(),    "--bag",  bag.string()};
  argv.insert(argv.end(), extraArguments.begin(), extraArguments.end());
  process_ =
      std::make_unique<ChildProcess>(argv, std::map<std::string, std::string>{}, dir_ / "output");

  // The port file appears, renamed into place, after the listening line is flushed.
  std::optional<int> exited;
  const bool listening = eventually(
      [&] {
        if (std::filesystem::exists(portFile)) return true;
        exited = process_->waitForExit(0ms);
        return exited.has_value();
      },
      watchdog);
  if (exited) {
    throw std::runtime_error("orvex-backend exited with status " + std::to_string(*exited) + ":\n" +
                             output());
  }
  if (!listening) throw std::runtime_error("orvex-backend did not listen in time:\n" + output());
  port_ = std::stoi(readTextFile(portFile));
  const std::string text = output();
  const size_t line = text.find(kListeningLine);
  if (line == std::string::npos) {
    throw std::runtime_error("orvex-backend did not say where it listens:\n" + text);
  }
  const size_t start = line + kListeningLine.size();
  baseUrl_ = text.substr(start, text.find('\n', start) - start);
}

ReferenceBackend::~ReferenceBackend() {
  if (stopped_) return;
  const auto status = stop();
  // A sanitizer report or a crash on the way out shows up here.
  if (status != 0) {
    ADD_FAILURE() << "orvex-backend ended with status " << status.value_or(-1) << ":\n" << output();
  }
}

std::string ReferenceBackend::output() const { return readTextFile(dir_ / "output"); }

std::optional<int> ReferenceBackend::stop(int signal) {
  process_->signal(signal);
  auto status = process_->waitForExit(10s);
  stopped_ = status.has_value();
  return status;
}

std::string ReferenceBackend::control(const std::string& method, const std::string& path,
                                      const std::string& body) const {
  httplib::Client client(baseUrl_);
  client.set_connection_timeout(5s);
  client.set_read_timeout(5s);
  auto result = method == "GET"   ? client.Get(path)
                : method == "PUT" ? client.Put(path, body, "application/json")
                                  : client.Delete(path);
  if (!result) {
    throw std::runtime_error(method + " " + path + ": " + httplib::to_string(result.error()));
  }
  if (result->status / 100 != 2) {
    throw std::runtime_error(method + " " + path + ": " + std::to_string(result->status) + " " +
                             result->body);
  }
  return result->body;
}

void ReferenceBackend::setFault(const std::string& endpoint, const nlohmann::json& fault) {
  control("PUT", "/_orvex/faults/" + endpoint, fault.dump());
}

void ReferenceBackend::clearFaults() { control("DELETE", "/_orvex/faults"); }

nlohmann::json ReferenceBackend::faults() const {
  return nlohmann::json::parse(control("GET", "/_orvex/faults"));
}

std::vector<ReferenceBackend::Request> ReferenceBackend::requests() const {
  const auto list = nlohmann::json::parse(control("GET", "/_orvex/requests"));
  std::vector<Request> requests;
  for (const auto& entry : list) {
    Request request;
    request.seq = entry.at("seq").get<int64_t>();
    if (!entry.at("endpoint").is_null()) request.endpoint = entry.at("endpoint");
    request.method = entry.at("method");
    request.path = entry.at("path");
    request.query = entry.at("query");
    for (const auto& item : entry.at("query_items")) {
      request.queryItems.emplace_back(item.at(0), item.at(1));
    }
    for (const auto& [name, value] : entry.at("headers").items()) {
      request.headers.emplace(name, value.get<std::string>());
    }
    request.status = entry.at("status");
    requests.push_back(std::move(request));
  }
  return requests;
}

size_t ReferenceBackend::requestCount(const std::string& endpoint) const {
  size_t count = 0;
  for (const Request& request : requests()) count += request.endpoint == endpoint ? 1 : 0;
  return count;
}

bool ReferenceBackend::waitForRequests(const std::string& endpoint, size_t count,
                                       std::chrono::milliseconds watchdog) const {
  return eventually([&] { return requestCount(endpoint) >= count; }, watchdog);
}

nlohmann::json ReferenceBackend::uploads() const {
  return nlohmann::json::parse(control("GET", "/_orvex/feedback"));
}

}  // namespace orvex::testing
