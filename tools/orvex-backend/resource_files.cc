#include "tools/orvex-backend/resource_files.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/sha256_hex.h"
#include "tools/orvex-backend/app_whitelist_builder.h"
#include "tools/orvex-backend/hex_digest.h"
#include "tools/orvex-backend/image_directory.h"

namespace orvex::backend {
namespace {

constexpr size_t kVersionDigits = 32;
constexpr std::string_view kFilesPrefix = "/resources/";
constexpr std::string_view kRedirectPrefix = "/r/";

// Top-level domains: the public suffix list's rules without a dot, wildcard or exception.
std::string topLevelDomains(const std::filesystem::path& publicSuffixList) {
  std::ifstream in(publicSuffixList);
  std::string line, list;
  while (std::getline(in, line)) {
    if (line.empty() || line.starts_with("//") || line.find_first_of(".!* ") != std::string::npos) {
      continue;
    }
    list.append(line).append("\n");
  }
  return list.empty() ? "com\nnet\norg\nedu\ngov\n" : list;
}

// The corpus's lemmas with the most senses, most first (ties by text), at most `count`.
std::vector<const WordNetCorpus::Lemma*> mostSenses(const WordNetCorpus& corpus, size_t count,
                                                    bool singleWords) {
  std::vector<const WordNetCorpus::Lemma*> lemmas;
  for (const auto& lemma : corpus.lemmas()) {
    if (!singleWords ||
        lemma.text.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string_view::npos) {
      lemmas.push_back(&lemma);
    }
  }
  count = std::min(count, lemmas.size());
  std::partial_sort(lemmas.begin(), lemmas.begin() + static_cast<std::ptrdiff_t>(count),
                    lemmas.end(), [](const auto* a, const auto* b) {
                      return a->senseCount != b->senseCount ? a->senseCount > b->senseCount
                                                            : a->text < b->text;
                    });
  lemmas.resize(count);
  return lemmas;
}

std::string wordList(const WordNetCorpus* corpus, size_t count, bool singleWords) {
  if (corpus == nullptr) return "break\ncut\nrun\nplay\nmake\n";
  std::string list;
  for (const auto* lemma : mostSenses(*corpus, count, singleWords)) {
    list.append(WordNetCorpus::display(*lemma)).append("\n");
  }
  return list;
}

// Category labels: the most polysemous nouns with their first gloss.
std::string categoryLabels(const WordNetCorpus* corpus) {
  nlohmann::ordered_json labels = nlohmann::ordered_json::array();
  for (const auto* lemma :
       corpus ? mostSenses(*corpus, 200, true) : std::vector<const WordNetCorpus::Lemma*>()) {
    const auto sense = corpus->sense(*lemma, 0);
    if (sense && std::string_view(sense->type) == "noun" && labels.size() < 50) {
      labels.push_back({{"label", WordNetCorpus::display(*lemma)}, {"gloss", sense->gloss}});
    }
  }
  return nlohmann::ordered_json{{"version", 1}, {"labels", labels}}.dump(1) + "\n";
}

// A feature table and a tiny linear model: each part of speech's share of the senses.
std::string featureShares(const WordNetCorpus* corpus, bool model) {
  std::map<std::string, double> shares{{"noun", 0}, {"verb", 0}, {"adjective", 0}, {"adverb", 0}};
  double total = 0;
  for (const auto* lemma :
       corpus ? mostSenses(*corpus, 500, true) : std::vector<const WordNetCorpus::Lemma*>()) {
    for (uint32_t i = 0; i < lemma->senseCount; ++i) {
      if (const auto sense = corpus->sense(*lemma, i)) {
        shares[sense->type] += 1;
        total += 1;
      }
    }
  }
  nlohmann::ordered_json document{{"version", 1}};
  for (auto& [type, count] : shares) count = total > 0 ? count / total : 0.25;
  if (model) {
    document["model"] = "linear";
    document["bias"] = 0.0;
    document["weights"] = shares;
  } else {
    document["features"] = shares;
  }
  return document.dump(1) + "\n";
}

// A crowdsourcing filter list: a JSON object with the list under `key`.
std::string crowdsourcingList(const char* key, const std::vector<std::string>& entries) {
  return nlohmann::ordered_json{{key, entries}}.dump(1) + "\n";
}

bool conditionNames(const EndpointRequest& request, const std::string& version) {
  const auto condition = request.header("If-None-Match");
  return condition &&
         (namesTag(*condition, version) || namesTag(*condition, "\"" + version + "\""));
}

}  // namespace

bool ResourceFiles::isResourceKey(std::string_view key) {
  return std::find(std::begin(kORVResourceKeys), std::end(kORVResourceKeys), key) !=
         std::end(kORVResourceKeys);
}

ResourceFiles::ResourceFiles(const WordNetCorpus* corpus,
                             const std::filesystem::path& publicSuffixList,
                             const std::map<std::string, std::string>& overrides) {
  const auto add = [this, &overrides](std::string_view key, std::string type, std::string bytes) {
    if (auto given = overrides.find(std::string(key)); given != overrides.end()) {
      bytes = given->second;
    }
    std::string version = sha512Hex(bytes).substr(0, kVersionDigits);
    documents_.emplace(std::string(key),
                       Document{std::move(type), std::move(bytes), std::move(version)});
  };
  add(kORVAutofillTLDWhitelist, "text/plain", topLevelDomains(publicSuffixList));
  // The installed-app whitelist and the crowdsourcing whitelist name the applications whose
  // metainfo is on this machine.
  const auto applications = applicationsOnThisMachine();
  std::vector<std::string> applicationIds;
  for (const auto& application : applications) {
    applicationIds.push_back(application.bundleIdentifier);
  }
  add(kORVInstalledAppWhitelist, "application/json", buildAppWhitelist(applications));
  add(kORVQIFeatures, "application/json", featureShares(corpus, false));
  add(kORVWebsiteCategoryLabels, "application/json", categoryLabels(corpus));
  add(kORVLookupHintsWeekly, "text/plain", wordList(corpus, 100, false));
  add(kORVLookupHintsMonthly, "text/plain", wordList(corpus, 1000, false));
  add(kORVGlanceModels, "application/json", featureShares(corpus, true));
  add(kORVCorrectionDict, "text/plain", wordList(corpus, 20000, true));
  add(kORVCrowdsourcingBlacklist, "application/json",
      crowdsourcingList("static_deeplinks_blacklist", {}));
  add(kORVCrowdsourcingWhitelist, "application/json",
      crowdsourcingList("static_apps_whitelist", applicationIds));
}

std::map<std::string, std::string> ResourceFiles::bagVariables() const {
  std::map<std::string, std::string> variables;
  for (const auto& [key, document] : documents_) variables["VERSION:" + key] = document.version;
  return variables;
}

void ResourceFiles::addEndpoints(std::shared_ptr<const ResourceFiles> files,
                                 EndpointRegistry& endpoints) {
  for (const auto& [key, document] : files->documents_) {
    endpoints.add({key, "GET", std::string(kFilesPrefix).append(key),
                   [files, key = key](const EndpointRequest& request) {
                     return files->serve(key, request);
                   }});
    endpoints.add({key + "-redirect", "GET", std::string(kRedirectPrefix).append(key),
                   [files, key = key](const EndpointRequest& request) {
                     return files->redirect(key, request);
                   }});
  }
}

EndpointReply ResourceFiles::serve(const std::string& key, const EndpointRequest& request) const {
  const Document& document = documents_.find(key)->second;
  HeaderList headers = {{"ETag", "\"" + document.version + "\""}};
  std::string url = request.baseUrl + request.path;
  if (!request.query.empty()) url.append("?").append(request.query);
  if (conditionNames(request, document.version) || conditionNames(request, sha256Hex(url))) {
    return {304, "", "", std::move(headers)};
  }
  return {200, document.contentType, document.bytes, std::move(headers)};
}

EndpointReply ResourceFiles::redirect(const std::string& key,
                                      const EndpointRequest& request) const {
  const Document& document = documents_.find(key)->second;
  std::string location = request.baseUrl;
  location.append(kFilesPrefix).append(key).append("?v=").append(document.version);
  return {302, "text/plain", "moved to " + location + "\n", {{"Location", location}}};
}

}  // namespace orvex::backend
