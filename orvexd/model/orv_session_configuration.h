// How a client introduces itself: who it is, the user agent its requests and feedback carry,
// and whether the daemon should fetch the images its answers name.
#pragma once

#include <string>

namespace orvex {

struct ORVSessionConfiguration {
  std::string identifier;  // the client identifier, such as "com.zelmor.glance"
  std::string userAgent;   // such as "Glance/1"
  bool dontPreloadImages = false;

  // Both the identifier and the user agent are required.
  bool isValid() const { return !identifier.empty() && !userAgent.empty(); }
  friend bool operator==(const ORVSessionConfiguration&, const ORVSessionConfiguration&) = default;
};

}  // namespace orvex
