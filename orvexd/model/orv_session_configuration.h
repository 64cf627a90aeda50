// How a client introduces itself: who it is, the user agent its requests and feedback carry,
// and whether the daemon should fetch the images its answers name.
#pragma once

#include <string>

#include "orvexd/base/text_util.h"

namespace orvex {

struct ORVSessionConfiguration {
  std::string identifier;  // the client identifier, such as "com.zelmor.glance"
  std::string userAgent;   // such as "Glance/1"
  bool dontPreloadImages = false;

  // Both the identifier and the user agent are required.
  bool isValid() const { return !identifier.empty() && !userAgent.empty(); }
  // The identifier and the user agent go into HTTP headers and log lines: a control character
  // in either could add a header or forge a line, and makes the configuration unusable.
  bool hasControlCharacters() const {
    return containsControlCharacter(identifier) || containsControlCharacter(userAgent);
  }
  friend bool operator==(const ORVSessionConfiguration&, const ORVSessionConfiguration&) = default;
};

}  // namespace orvex
