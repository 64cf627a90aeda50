#include "tools/orvex-backend/answer_builders.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace orvex::backend {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kLookupSenses = 3;     // lookup answers
constexpr uint32_t kFirstMorePage = 2;  // the search answer is page 1

// Image files under /images/, all in bookworm's adwaita-icon-theme, of 0.5 to 42 KB. The
// identifiers are those of the shipped bag's "resources".
namespace icon {
constexpr std::string_view kSearch = "48x48/legacy/system-search.png";
constexpr std::string_view kStarred = "24x24/legacy/starred.png";
constexpr std::string_view kSmallDocument = "16x16/mimetypes/text-x-generic.png";
constexpr std::string_view kMediumDocument = "32x32/mimetypes/text-x-generic.png";
constexpr std::string_view kLargeDocument = "512x512/mimetypes/text-x-generic.png";
constexpr std::string_view kDictionary = "48x48/legacy/accessories-dictionary.png";
constexpr std::string_view kSmallDictionary = "24x24/legacy/accessories-dictionary.png";
constexpr std::string_view kDictionaryGlyph =
    "16x16/legacy/accessories-dictionary-symbolic.symbolic.png";
constexpr std::string_view kDictionarySymbol =
    "scalable/legacy/accessories-dictionary-symbolic.svg";
// Named only for requests with the "missing_image" item: the route answers it 404.
constexpr std::string_view kMissing = "48x48/legacy/no-such-icon.png";

// The zero-keyword suggestions' thumbnails, by rank: one suggestion each.
constexpr std::string_view kSuggested[] = {
    "48x48/legacy/emblem-favorite.png", "32x32/places/user-bookmarks.png",
    "24x24/legacy/help-browser.png", "48x48/legacy/applications-science.png",
    "22x22/mimetypes/x-office-document.png"};

// A thumbnail per part of speech.
std::string_view forType(std::string_view type) {
  if (type == "verb") return "48x48/legacy/go-next.png";
  if (type == "adjective") return "48x48/legacy/starred.png";
  if (type == "adverb") return "48x48/legacy/face-smile.png";
  return "48x48/mimetypes/x-office-document.png";
}
}  // namespace icon

EndpointReply jsonReply(int status, const Json& json) {
  std::string body = json.dump(2);
  body.push_back('\n');
  return EndpointReply{status, "application/json", std::move(body), {}};
}

EndpointReply errorReply(int status, std::string_view reason) {
  return jsonReply(status, {{"status", "ERROR"}, {"reason", reason}});
}

EndpointReply noCorpus() { return errorReply(503, "no word list loaded"); }

// The value of the last item named `name`, as a repeated item's last value wins.
const std::string* lastItem(const EndpointRequest& request, std::string_view name) {
  const std::string* value = nullptr;
  for (const auto& [itemName, itemValue] : request.queryItems) {
    if (itemName == name) value = &itemValue;
  }
  return value;
}

// `words` followed by `text` in double quotes.
std::string quoting(std::string_view words, std::string_view text) {
  std::string quoted(words);
  quoted.append(" \"").append(text).append("\"");
  return quoted;
}

EndpointReply missingItem(std::string_view name) {
  return errorReply(400, quoting("missing query item", name));
}

EndpointReply badCount(std::string_view name) {
  return errorReply(400, quoting("the query item", name).append(" is not a number from 1 up"));
}

// A count item from 1 up; `fallback` when absent, none when it is not such a number.
std::optional<uint32_t> countItem(const EndpointRequest& request, std::string_view name,
                                  uint32_t fallback) {
  const std::string* text = lastItem(request, name);
  if (text == nullptr) return fallback;
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size() || value == 0) {
    return std::nullopt;
  }
  return value;
}

std::string imageUrl(const EndpointRequest& request, std::string_view file) {
  std::string url = request.baseUrl;
  url.append("/images/").append(file);
  return url;
}

Json byUrl(const EndpointRequest& request, std::string_view file) {
  return {{"url", imageUrl(request, file)}};
}
Json byId(std::string_view id) { return {{"id", id}}; }
Json byBoth(const EndpointRequest& request, std::string_view file, std::string_view id) {
  return {{"url", imageUrl(request, file)}, {"id", id}};
}

void addMissingImage(const EndpointRequest& request, Json& answer) {
  if (lastItem(request, "missing_image") != nullptr) {
    answer["badge_image"] = byUrl(request, icon::kMissing);
  }
}

// A gloss is its definition, then examples in double quotes: 'a dog; "the dog barked"'.
struct Gloss {
  std::string definition;
  Json examples = Json::array();
};

Gloss splitGloss(std::string_view gloss) {
  Gloss split;
  size_t quote = gloss.find('"');
  std::string_view definition = gloss.substr(0, quote);
  while (!definition.empty() && (definition.back() == ' ' || definition.back() == ';')) {
    definition.remove_suffix(1);
  }
  split.definition = definition;
  while (quote != std::string_view::npos) {
    const size_t close = gloss.find('"', quote + 1);
    if (close == std::string_view::npos) break;
    split.examples.push_back(gloss.substr(quote + 1, close - quote - 1));
    quote = gloss.find('"', close + 1);
  }
  return split;
}

// A sense as a result of the more-results answer: the search result's fields and a thumbnail.
Json senseResult(const EndpointRequest& request, const WordNetCorpus::SenseText& sense,
                 const std::string& fallbackTitle) {
  const std::string title = sense.title();
  return {{"id", sense.id},
          {"title", title.empty() ? fallbackTitle : title},
          {"description", sense.gloss},
          {"type", sense.type},
          {"thumbnail", byUrl(request, icon::forType(sense.type))}};
}

// The plain words with the most senses, most first, then in byte order: common words to offer
// before anything is typed.
std::vector<const WordNetCorpus::Lemma*> suggestedLemmas(const WordNetCorpus& corpus) {
  constexpr size_t kSuggestions = std::size(icon::kSuggested);
  std::vector<const WordNetCorpus::Lemma*> picked;
  const auto before = [](const WordNetCorpus::Lemma* a, const WordNetCorpus::Lemma* b) {
    return a->senseCount > b->senseCount || (a->senseCount == b->senseCount && a->text < b->text);
  };
  for (const auto& lemma : corpus.lemmas()) {
    if (!std::all_of(lemma.text.begin(), lemma.text.end(),
                     [](char c) { return c >= 'a' && c <= 'z'; })) {
      continue;
    }
    if (picked.size() == kSuggestions && !before(&lemma, picked.back())) continue;
    if (picked.size() == kSuggestions) picked.pop_back();
    picked.insert(std::upper_bound(picked.begin(), picked.end(), &lemma, before), &lemma);
  }
  return picked;
}

EndpointReply answerZeroKeyword(const WordNetCorpus& corpus, const EndpointRequest& request) {
  Json answer = {{"status", "OK"},
                 {"qtype", "zkw"},
                 {"max_age", WordNetCorpus::kMaxAgeSeconds},
                 {"icon", byBoth(request, icon::kSearch, "search")},
                 {"results", Json::array()},
                 {"more_icons", {byId("favorite"), byUrl(request, icon::kStarred)}}};
  const auto suggested = suggestedLemmas(corpus);
  for (size_t rank = 0; rank < suggested.size(); ++rank) {
    const auto sense = corpus.sense(*suggested[rank], 0);
    if (!sense) continue;
    answer["results"].push_back({{"id", sense->id},
                                 {"title", WordNetCorpus::display(*suggested[rank])},
                                 {"description", sense->gloss},
                                 {"type", sense->type},
                                 {"thumbnail", byUrl(request, icon::kSuggested[rank])}});
  }
  addMissingImage(request, answer);
  return jsonReply(200, answer);
}

EndpointReply answerLookup(const WordNetCorpus& corpus, const EndpointRequest& request) {
  const std::string* typed = lastItem(request, "q");
  if (typed == nullptr) return missingItem("q");
  Json context = Json::object();
  for (const char* name : {"context", "ltype", "ldomain", "qlang", "lctxlang"}) {
    if (const std::string* value = lastItem(request, name)) context[name] = *value;
  }
  const WordNetCorpus::Lemma* lemma = corpus.complete(*typed);
  Json answer = {{"status", "OK"},
                 {"qtype", "lookup"},
                 {"query", lemma != nullptr ? WordNetCorpus::display(*lemma) : *typed},
                 {"context", context},
                 {"icon", byId("help")},
                 {"completion_icon", byBoth(request, icon::kMediumDocument, "search")},
                 {"results", Json::array()}};
  for (uint32_t s = 0; lemma != nullptr && s < lemma->senseCount; ++s) {
    if (answer["results"].size() == kLookupSenses) break;
    const auto sense = corpus.sense(*lemma, s);
    if (!sense) continue;
    Gloss gloss = splitGloss(sense->gloss);
    answer["results"].push_back({{"id", sense->id},
                                 {"title", sense->title()},
                                 {"definition", std::move(gloss.definition)},
                                 {"examples", std::move(gloss.examples)},
                                 {"type", sense->type},
                                 {"glyph", byUrl(request, icon::kDictionarySymbol)}});
  }
  addMissingImage(request, answer);
  return jsonReply(200, answer);
}

}  // namespace

EndpointReply answerSearchRequest(const WordNetCorpus* corpus, const EndpointRequest& request) {
  if (corpus == nullptr) return noCorpus();
  if (const std::string* type = lastItem(request, "qtype"); type != nullptr && *type == "zkw") {
    return answerZeroKeyword(*corpus, request);
  }
  if (lastItem(request, "context") != nullptr || lastItem(request, "ltype") != nullptr) {
    return answerLookup(*corpus, request);
  }
  const std::string* typed = lastItem(request, "q");
  if (typed == nullptr) return missingItem("q");
  return jsonReply(200, corpus->answer(*typed));
}

EndpointReply answerMoreResults(const WordNetCorpus* corpus, const EndpointRequest& request) {
  if (corpus == nullptr) return noCorpus();
  const std::string* typed = lastItem(request, "q");
  if (typed == nullptr) return missingItem("q");
  const auto page = countItem(request, "page", kFirstMorePage);
  if (!page) return badCount("page");

  const WordNetCorpus::Lemma* lemma = corpus->complete(*typed);
  const uint32_t senses = lemma != nullptr ? lemma->senseCount : 0;
  const uint32_t pageSize = WordNetCorpus::kMaxResults;
  const std::string title = lemma != nullptr ? WordNetCorpus::display(*lemma) : *typed;
  Json answer = {
      {"status", "OK"},
      {"query", title},
      {"page", *page},
      {"page_count", (senses + pageSize - 1) / pageSize},
      {"has_more", uint64_t{*page} * pageSize < senses},
      {"results", Json::array()},
      {"more_glyphs", {byId("next-page"), byBoth(request, icon::kSmallDocument, "document")}}};
  const uint64_t first = (uint64_t{*page} - 1) * pageSize;
  for (uint64_t s = first; s < senses && s < first + pageSize; ++s) {
    if (const auto sense = corpus->sense(*lemma, static_cast<uint32_t>(s))) {
      answer["results"].push_back(senseResult(request, *sense, title));
    }
  }
  addMissingImage(request, answer);
  return jsonReply(200, answer);
}

EndpointReply answerCard(const WordNetCorpus* corpus, const EndpointRequest& request) {
  if (corpus == nullptr) return noCorpus();
  const std::string* typed = lastItem(request, "q");
  if (typed == nullptr) return missingItem("q");
  const auto number = countItem(request, "sense", 1);
  if (!number) return badCount("sense");
  const WordNetCorpus::Lemma* lemma = corpus->complete(*typed);
  if (lemma == nullptr) return errorReply(404, quoting("no word begins with", *typed));
  const auto sense = corpus->sense(*lemma, *number - 1);
  if (!sense) return errorReply(404, "the word has no such sense");

  Gloss gloss = splitGloss(sense->gloss);
  Json card = {{"id", sense->id},
               {"title", WordNetCorpus::display(*lemma)},
               {"type", sense->type},
               {"sense", *number},
               {"sense_count", lemma->senseCount},
               {"synonyms", sense->words},
               {"definition", std::move(gloss.definition)},
               {"examples", std::move(gloss.examples)},
               {"image", byBoth(request, icon::kLargeDocument, "bookmark")},
               {"title_glyph", byId("dictionary")},
               {"attribution_glyph", byUrl(request, icon::kDictionaryGlyph)},
               {"posters",
                {byUrl(request, icon::kDictionary), byId("document"),
                 byBoth(request, icon::kSmallDictionary, "dictionary")}}};
  Json answer = {{"status", "OK"}, {"max_age", WordNetCorpus::kMaxAgeSeconds}, {"card", card}};
  addMissingImage(request, answer);
  return jsonReply(200, answer);
}

}  // namespace orvex::backend
