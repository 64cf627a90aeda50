// The HTTP(S) server: answers the registered endpoints, applies the faults set for them, keeps
// the request log, and serves the control API under /_orvex/.
//
// Every request outside the control API is logged (in memory, and on standard error unless
// quiet) with the status it is answered with. Requests run on a pool of worker threads, so a
// delayed answer holds up only its own connection.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tools/orvex-backend/endpoint_registry.h"
#include "tools/orvex-backend/fault_table.h"
#include "tools/orvex-backend/feedback_store.h"

namespace orvex::backend {

class BackendServer {
 public:
  struct Options {
    std::string bindAddress = "127.0.0.1";
    int port = 0;  // 0: the kernel picks one
    // Both set: serve HTTPS with this PEM certificate and private key.
    std::optional<std::filesystem::path> certificate;
    std::optional<std::filesystem::path> privateKey;
    bool quiet = false;  // no request log on standard error
  };

  // `feedback` holds the uploads the endpoints accepted, for the control API to list. Throws
  // std::runtime_error when the certificate or key cannot be loaded.
  BackendServer(Options options, EndpointRegistry endpoints,
                std::shared_ptr<FeedbackStore> feedback);
  ~BackendServer();
  BackendServer(const BackendServer&) = delete;
  BackendServer& operator=(const BackendServer&) = delete;

  FaultTable& faults();
  const EndpointRegistry& endpoints() const;

  // Binds and answers on threads of its own from then on. Throws std::runtime_error when it
  // cannot listen on the address and port.
  void start();
  // Stops listening, cuts delayed answers short and waits for the server's threads.
  void stop();

  int port() const;
  // "http://127.0.0.1:40123", or https; a wildcard bind address reads as the loopback one.
  const std::string& baseUrl() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace orvex::backend
