// Describes the installed applications that are on the server's whitelist, as an opaque
// signature sent with queries.
#pragma once

#include <optional>
#include <string>

namespace orvex {

class AppWhitelistController {
 public:
  virtual ~AppWhitelistController() = default;
  // The base64 signature of the installed whitelisted apps; none until one has been computed.
  // Callable from any thread.
  virtual std::optional<std::string> whitelistSignature() const = 0;
};

}  // namespace orvex
