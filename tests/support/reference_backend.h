// The reference back-end (the built orvex-backend) run as a child process on 127.0.0.1, with
// its control API at hand: faults per endpoint and the log of the requests it received.
//
//   testing::ReferenceBackend backend(dir / "bag.json");
//   backend.setFault("bag", {{"status", 503}, {"count", 1}});
//   ... point the daemon at backend.baseUrl() ...
//   ASSERT_TRUE(backend.waitForRequests("bag", 2, 5s));
//
// Control calls throw std::runtime_error when the server refuses them or cannot be reached.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvexd/base/http_types.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_environment.h"

namespace orvex::testing {

class ReferenceBackend {
 public:
  // One request as the server logged it.
  struct Request {
    int64_t seq = 0;
    std::optional<std::string> endpoint;  // none when no endpoint matched
    std::string method;
    std::string path;                                             // as sent, percent-encoding kept
    std::string query;                                            // as sent
    std::vector<std::pair<std::string, std::string>> queryItems;  // decoded, in wire order
    HttpHeaderMap headers;  // repeated fields joined with ", "
    int status = 0;         // the status it was answered with
  };

  // Starts orvex-backend serving `bag` on a port the kernel picks, with `extraArguments` added
  // to its command line (--images-dir, say), and returns once it listens. Throws
  // std::runtime_error, with the server's output, when it exits or does not listen within
  // `watchdog`.
  explicit ReferenceBackend(const std::filesystem::path& bag,
                            const std::vector<std::string>& extraArguments = {},
                            std::chrono::milliseconds watchdog = std::chrono::seconds(10));
  // Stops the server if it still runs; a server that does not exit 0 then fails the test.
  ~ReferenceBackend();
  ReferenceBackend(const ReferenceBackend&) = delete;
  ReferenceBackend& operator=(const ReferenceBackend&) = delete;

  const std::string& baseUrl() const { return baseUrl_; }  // "http://127.0.0.1:<port>"
  int port() const { return port_; }
  // Everything the server wrote to its standard output and error so far.
  std::string output() const;

  void setFault(const std::string& endpoint, const nlohmann::json& fault);
  void clearFaults();
  nlohmann::json faults() const;

  // The logged requests, oldest first.
  std::vector<Request> requests() const;
  size_t requestCount(const std::string& endpoint) const;
  // Polls until at least `count` requests of `endpoint` are logged; false when the watchdog
  // expires first.
  bool waitForRequests(const std::string& endpoint, size_t count,
                       std::chrono::milliseconds watchdog) const;

  // The feedback and crowdsourcing uploads the server accepted, oldest first, as
  // GET /_orvex/feedback lists them (bodies parsed).
  nlohmann::json uploads() const;

  // Sends `signal` and waits for the server to exit; its exit status, none if it did not exit.
  std::optional<int> stop(int signal = SIGTERM);

 private:
  std::string control(const std::string& method, const std::string& path,
                      const std::string& body = "") const;

  TempDir dir_;
  std::unique_ptr<ChildProcess> process_;
  bool stopped_ = false;
  int port_ = 0;
  std::string baseUrl_;
};

}  // namespace orvex::testing
