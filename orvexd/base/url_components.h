// A URL cut into its parts, and the normal form under which opened application links are
// counted.
//
// The parser reads absolute URLs as RFC 3986 writes them: scheme ":" ["//" authority] path
// ["?" query] ["#" fragment]. It does not decode percent escapes; it refuses white space and
// control characters anywhere, a scheme that is not letters, digits, "+", "-" and ".", and a
// port that is not a decimal number up to 65535.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

struct UrlComponents {
  std::string scheme;  // as written
  bool hasAuthority = false;
  std::string user;  // user information before "@", without the "@"
  std::string host;  // as written; an IPv6 literal keeps its brackets
  std::optional<uint16_t> port;
  std::string path;
  std::optional<std::string> query;     // without the "?"
  std::optional<std::string> fragment;  // without the "#"
};

// Nothing when `text` is not an absolute URL.
std::optional<UrlComponents> parseUrlComponents(std::string_view text);

// The normal form of an opened link, so that the same page counts once however it was written:
// scheme and host lower-cased; the scheme's default port dropped (80 for http and ws, 443 for
// https and wss, 21 for ftp); user information, query and fragment dropped; "." and ".." path
// segments resolved; a trailing "/" dropped. A URL with an authority is written
// "scheme://host[:port]path", one without "scheme:path". Nothing for a web URL (http, https, ws,
// wss, ftp) without a host, or when nothing would be left of the link.
std::optional<std::string> orvex_normalizedURLStringForDeepLinkIngest(
    const UrlComponents& components);

// `text` trimmed of white space, parsed and normalised as above.
std::optional<std::string> normalizedDeepLinkString(std::string_view text);

}  // namespace orvex
