#include "orvexd/base/url_components.h"

#include <charconv>
#include <vector>

#include "orvexd/base/text_util.h"

namespace orvex {

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isSchemeCharacter(char c) {
  return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
}

// White space and control characters end a URL in every context that hands one over; one that
// holds them was not a URL to begin with.
bool hasForbiddenCharacter(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7f) return true;
  }
  return false;
}

// Host and port of an authority without its user information. The port may be empty ("host:").
bool parseHostAndPort(std::string_view text, UrlComponents& out) {
  std::string_view portText;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) return false;
    out.host = std::string(text.substr(0, close + 1));
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') return false;
      portText = rest.substr(1);
    }
  } else {
    const size_t colon = text.rfind(':');
    if (colon != std::string_view::npos) {
      portText = text.substr(colon + 1);
      text = text.substr(0, colon);
    }
    if (text.find_first_of("[]") != std::string_view::npos) return false;
    out.host = std::string(text);
  }
  if (portText.empty()) return true;
  if (portText.size() > 5) return false;
  unsigned value = 0;
  const auto [end, error] =
      std::from_chars(portText.data(), portText.data() + portText.size(), value);
  if (error != std::errc() || end != portText.data() + portText.size() || value > 65535) {
    return false;
  }
  out.port = static_cast<uint16_t>(value);
  return true;
}

std::optional<uint16_t> defaultPort(std::string_view lowerScheme) {
  if (lowerScheme == "http" || lowerScheme == "ws") return 80;
  if (lowerScheme == "https" || lowerScheme == "wss") return 443;
  if (lowerScheme == "ftp") return 21;
  return std::nullopt;
}

// The path with "." and ".." segments resolved: ".." removes the segment before it and never
// climbs above the root.
std::string removeDotSegments(std::string_view path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::vector<std::string_view> segments;
  size_t start = absolute ? 1 : 0;
  bool endsInDirectory = false;
  while (start <= path.size()) {
    const size_t slash = path.find('/', start);
    const std::string_view segment = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    endsInDirectory = false;
    if (segment == ".") {
      endsInDirectory = true;
    } else if (segment == "..") {
      if (!segments.empty()) segments.pop_back();
      endsInDirectory = true;
    } else {
      segments.push_back(segment);
    }
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  std::string out = absolute ? "/" : "";
  for (size_t i = 0; i < segments.size(); ++i) {
    if (i > 0) out += '/';
    out.append(segments[i]);
  }
  if (endsInDirectory && !out.empty() && out.back() != '/') out += '/';
  return out;
}

}  // namespace

std::optional<UrlComponents> parseUrlComponents(std::string_view text) {
  if (text.empty() || hasForbiddenCharacter(text)) return std::nullopt;
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || !isAlpha(text.front())) return std::nullopt;
  UrlComponents out;
  for (const char c : text.substr(0, colon)) {
    if (!isSchemeCharacter(c)) return std::nullopt;
  }
  out.scheme = std::string(text.substr(0, colon));
  std::string_view rest = text.substr(colon + 1);

  if (const size_t hash = rest.find('#'); hash != std::string_view::npos) {
    out.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  if (const size_t question = rest.find('?'); question != std::string_view::npos) {
    out.query = std::string(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  if (rest.starts_with("//")) {
    out.hasAuthority = true;
    rest.remove_prefix(2);
    const size_t slash = rest.find('/');
    std::string_view authority = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
      out.user = std::string(authority.substr(0, at));
      authority = authority.substr(at + 1);
    }
    if (!parseHostAndPort(authority, out)) return std::nullopt;
  }
  out.path = std::string(rest);
  return out;
}

std::optional<std::string> orvex_normalizedURLStringForDeepLinkIngest(
    const UrlComponents& components) {
  const std::string scheme = asciiLowercase(components.scheme);
  if (scheme.empty()) return std::nullopt;
  std::string path = removeDotSegments(components.path);
  if (!path.empty() && path.back() == '/') path.pop_back();

  std::string out = scheme;
  out += ':';
  if (components.hasAuthority) {
    // Web URLs name a host; other schemes ("file:///x", "app:///page") may leave it empty.
    if (components.host.empty() && defaultPort(scheme)) return std::nullopt;
    out += "//";
    out += asciiLowercase(components.host);
    if (components.port && components.port != defaultPort(scheme)) {
      out += ':';
      out += std::to_string(*components.port);
    }
  } else if (path.empty()) {
    return std::nullopt;
  }
  out += path;
  return out;
}

std::optional<std::string> normalizedDeepLinkString(std::string_view text) {
  const auto components = parseUrlComponents(trimWhitespace(text));
  if (!components) return std::nullopt;
  return orvex_normalizedURLStringForDeepLinkIngest(*components);
}

}  // namespace orvex
