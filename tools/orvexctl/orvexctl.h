// What the commands of orvexctl share: the parsed command line, the exit statuses, how a failed
// bus call is reported, and the session (bus connection and configured client) every command
// starts with.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/client/orvex_client.h"

namespace orvex::ctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct UsageError {
  std::string message;
};

// The parsed command line.
struct Options {
  std::string identifier = "com.zelmor.orvexctl";
  std::string agent = "orvexctl/1.0";
  std::string address;
  bool json = false;
  std::optional<std::chrono::milliseconds> timeout;
  bool help = false;
  std::string command;
  std::vector<std::string> arguments;
  std::optional<int64_t> queryId;
  bool verbose = false;
  std::optional<std::string> event;
  // Queries: the request kind's name ("search", "zeroKeyword", ...), lookup's context and
  // domain, and the flight identifier.
  std::string kind;
  std::optional<std::string> context;
  std::optional<std::string> domain;
  std::optional<std::string> flightId;
  // images: where the images go (default: the current directory); resource: the file to write
  // (default: standard output).
  std::optional<std::string> outputDirectory;
  // report: the record, read and checked before the daemon is contacted.
  FeedbackRecordPtr record;
};

void printJson(const nlohmann::json& value);
// An error as {"domain", "code", "reason"} (null for none), and as one line of text.
nlohmann::json errorJson(const std::optional<OrvexError>& error);
std::string describeError(const OrvexError& error);

// A D-Bus failure: the error's name and message on standard error, with a hint when the daemon
// is simply not there. Returns the exit status.
int busFailure(const std::string& what, const ClientError& error);

class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}

  // Connects and configures; the exit status on failure.
  std::optional<int> open() {
    std::string error;
    client_ = OrvexClient::connect(&error, options_.address);
    if (!client_) {
      std::cerr << "orvexctl: cannot connect to "
                << (options_.address.empty() ? "the session bus" : options_.address) << ": "
                << error << "\n";
      return kExitFailure;
    }
    if (options_.timeout) client_->setTimeout(*options_.timeout);
    client_->onBagDidLoad(
        [this](std::shared_ptr<const ORVBag> bag, std::optional<OrvexError> bagError) {
          std::lock_guard lock(mutex_);
          bagDidLoad_ = BagAnswer{std::move(bag), std::move(bagError)};
          bagArrived_.notify_all();
        });
    auto endpoint = client_->configure(configuration());
    if (!endpoint) return busFailure("Configure", endpoint.error());
    endpoint_ = endpoint.value();
    return std::nullopt;
  }

  ORVSessionConfiguration configuration() const {
    ORVSessionConfiguration configuration;
    configuration.identifier = options_.identifier;
    configuration.userAgent = options_.agent;
    return configuration;
  }

  OrvexClient& client() { return *client_; }
  const std::string& endpoint() const { return endpoint_; }

  // The first BagDidLoad, waiting at most `wait` for it.
  std::optional<BagAnswer> waitForBagDidLoad(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    bagArrived_.wait_for(lock, wait, [this] { return bagDidLoad_.has_value(); });
    return bagDidLoad_;
  }

 private:
  const Options& options_;
  std::string endpoint_;
  std::mutex mutex_;
  std::condition_variable bagArrived_;
  std::optional<BagAnswer> bagDidLoad_;
  // Last, so that it goes first: its bus thread runs the BagDidLoad handler, which uses the
  // members above.
  std::unique_ptr<OrvexClient> client_;
};

// The queries (query_commands.cc): the kind is options.kind.
int runQuery(Session& session, const Options& options);
// images URL...: the daemon's bytes for each image, saved to files.
int runImages(Session& session, const Options& options);

// The bag's resource files (resource_commands.cc): resources lists them, resource ID writes one.
int runResources(Session& session, const Options& options);
int runResource(Session& session, const Options& options);

// The flusher control channel (flusher_commands.cc).
int runFlusher(Session& session, const Options& options);
int runActivity(Session& session, const Options& options);

// The subscription registry (subscription_commands.cc): list, publish INFO, withdraw,
// account-status N.
bool subscriptionsArgumentsValid(const std::vector<std::string>& arguments);
int runSubscriptions(Session& session, const Options& options);
// dp: the differential-privacy reports kept on this device, read without the daemon
// (dp_command.cc).
int runDp(const Options& options);

}  // namespace orvex::ctl
