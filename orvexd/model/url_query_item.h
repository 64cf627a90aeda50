// One name=value pair of a URL's query.
#pragma once

#include <string>

namespace orvex {

struct URLQueryItem {
  std::string name;
  std::string value;

  friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

}  // namespace orvex
