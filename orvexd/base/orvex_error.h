// The daemon's error value: a domain, a code and a human-readable reason, optionally wrapping the
// error that caused it. Errors travel between components as values (never as exceptions), are
// logged with describe(), and are written into feedback and D-Bus replies field by field.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace orvex {

struct OrvexError {
  std::string domain;
  int64_t code = 0;
  std::string reason;
  // The lower-level failure this error reports, when there is one.
  std::shared_ptr<const OrvexError> underlying;

  OrvexError() = default;
  OrvexError(std::string errorDomain, int64_t errorCode, std::string errorReason)
      : domain(std::move(errorDomain)), code(errorCode), reason(std::move(errorReason)) {}

  // "<domain> <code>: <reason>", followed by the underlying error in parentheses.
  std::string describe() const {
    std::string text = domain + " " + std::to_string(code) + ": " + reason;
    if (underlying) text += " (" + underlying->describe() + ")";
    return text;
  }
  friend bool operator==(const OrvexError& a, const OrvexError& b) {
    return a.domain == b.domain && a.code == b.code && a.reason == b.reason;
  }
};

// So that log formatting prints errors through %@.
inline std::string describe(const OrvexError& error) { return error.describe(); }

}  // namespace orvex
