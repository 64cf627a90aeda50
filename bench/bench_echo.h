// A second peer on the daemon's private bus that answers "Echo" with a string of a given size:
// what a call and a reply of that size cost the bus itself, with no daemon behind it.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <memory>
#include <string>

namespace orvex::bench {

class EchoPeer {
 public:
  EchoPeer(const std::string& busAddress, size_t replyBytes)
      : text_(replyBytes, 'x'),
        server_(sdbus::createSessionBusConnectionWithAddress(busAddress)),
        caller_(sdbus::createSessionBusConnectionWithAddress(busAddress)) {
    object_ = sdbus::createObject(*server_, "/echo");
    object_->registerMethod("Echo").onInterface(kInterface).implementedAs([this](uint32_t) {
      return text_;
    });
    object_->finishRegistration();
    server_->enterEventLoopAsync();
    caller_->enterEventLoopAsync();
    proxy_ = sdbus::createProxy(*caller_, server_->getUniqueName(), "/echo");
  }

  // The connection the echo is called on, for other calls to compare with.
  sdbus::IConnection& caller() { return *caller_; }

  // One call and its reply, in microseconds.
  double roundTripMicroseconds() {
    const auto start = std::chrono::steady_clock::now();
    std::string back;
    proxy_->callMethod("Echo").onInterface(kInterface).withArguments(1u).storeResultsTo(back);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
  }

 private:
  static constexpr const char* kInterface = "com.zelmor.bench.Echo";
  const std::string text_;
  std::unique_ptr<sdbus::IConnection> server_;
  std::unique_ptr<sdbus::IConnection> caller_;
  std::unique_ptr<sdbus::IObject> object_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace orvex::bench
