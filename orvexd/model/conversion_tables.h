// Conversions between the strings found in server configuration, feedback and user agents and
// the small enumerations the daemon works with.
//
// The texts are read and written by other systems exactly as they are here, including their
// misspellings ("unkonwn", "unkonw") and asymmetries ("engrate" reads as the value written
// "eng/render"; "mediatype" is matched without regard to case but "mt" is not). They are
// deliberate and must be kept as they are.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex {

enum class FeatureType : int { kDomain = 0, kMediaType = 1, kTopic = 2, kUnknown = 3 };
enum class ClientType : int { kRoamer = 0, kGlance = 1, kUnknown = 2 };
enum class FunctionType : int { kEng = 0, kEngRender = 1, kUnknown = 2 };
enum class ResultPlacement : int { kUnknown = 0, kTop = 1, kBottom = 2 };

// "domain" and "tld" → 0; "mediatype" in any letter case, or exactly "mt" → 1; "topic" → 2;
// anything else → 3.
int featureTypeFromString(std::string_view text);
// 0 "domain", 1 "mediaType", 2 "topic", anything else "unkonwn".
std::string stringFromFeatureType(int type);

// "roamer" → 0, "glance" → 1, anything else → 2.
int clientTypeFromString(std::string_view text);
// 0 "roamer", 1 "glance", anything else "unknown".
std::string stringFromClientType(int type);

// "eng" → 0; "engrate" and "eng/render" → 1; anything else → 2.
int funcTypeFromString(std::string_view text);
// 0 "eng", 1 "eng/render", anything else "unknown".
std::string stringFromFunctionType(int type);

// "top" → 1, "bottom" → 2, anything else → 0.
int resultPlacementFromString(std::string_view text);
// 1 "top", 2 "bottom", anything else "unkonw".
std::string stringFromResultPlacement(int placement);

// The client named by a user agent, matched without regard to case: "roamer" if it mentions
// roamer (even when it also mentions glance), else "glance" if it mentions glance, else
// "unknown". No user agent at all is "unknown".
std::string getClientFromUserAgent(std::optional<std::string_view> userAgent);

}  // namespace orvex
