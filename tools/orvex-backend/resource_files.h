// The bag's data files: ten documents made once at start from real data (the machine's public
// suffix list, the WordNet corpus, the AppStream metainfo of its applications; the two
// crowdsourcing lists are JSON objects with "static_apps_whitelist" and
// "static_deeplinks_blacklist"), or from files given with --resource; each served at
// /resources/<key> with a strong ETag (a digest of its bytes) and answered 304 when If-None-Match
// names it. /r/<key> redirects (302) to /resources/<key>?v=<version>; behind a redirect,
// If-None-Match may also name the lookup signature of that URL (its SHA-256 in lower-case hex), as
// the daemon sends it for lookup files.
//
// The bag file refers to a document's version as "${VERSION:<key>}" (bagVariables()). Endpoint
// names are the keys themselves and "<key>-redirect", so faults (status, delay, a truncated
// body with "drop") apply to one file at a time. Read-only once made; safe from any thread.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tools/orvex-backend/endpoint_registry.h"
#include "tools/orvex-backend/wordnet_corpus.h"

namespace orvex::backend {

class ResourceFiles {
 public:
  // `corpus` may be null: the word lists are then short built-in ones. A missing public suffix
  // list gives a short built-in list of top-level domains.
  // `overrides` replaces documents by key with the bytes given (--resource).
  ResourceFiles(const WordNetCorpus* corpus, const std::filesystem::path& publicSuffixList,
                const std::map<std::string, std::string>& overrides = {});

  static bool isResourceKey(std::string_view key);

  // "VERSION:<key>" → the document's version, for the bag file.
  std::map<std::string, std::string> bagVariables() const;
  // Adds the /resources/<key> and /r/<key> endpoints of every document.
  static void addEndpoints(std::shared_ptr<const ResourceFiles> files, EndpointRegistry& endpoints);

 private:
  struct Document {
    std::string contentType;
    std::string bytes;
    std::string version;  // 32 hex digits of the SHA-512 of the bytes
  };
  EndpointReply serve(const std::string& key, const EndpointRequest& request) const;
  EndpointReply redirect(const std::string& key, const EndpointRequest& request) const;

  std::map<std::string, Document, std::less<>> documents_;
};

}  // namespace orvex::backend
