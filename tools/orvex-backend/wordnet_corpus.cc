#include "tools/orvex-backend/wordnet_corpus.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace orvex::backend {
namespace {

struct Part {
  char code;
  const char* name;  // the file suffix
  const char* type;  // the result type in answers
};
constexpr Part kParts[4] = {{'n', "noun", "noun"},
                            {'v', "verb", "verb"},
                            {'a', "adj", "adjective"},
                            {'r', "adv", "adverb"}};

std::string readWhole(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (!in || error) throw std::runtime_error("cannot read " + path.string());
  std::string contents(size, '\0');
  if (!in.read(contents.data(), static_cast<std::streamsize>(size))) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return contents;
}

template <typename T>
bool parseNumber(std::string_view text, T& value, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size();
}

// The next space-separated field of `line` from `at`, which moves past it.
std::string_view nextField(std::string_view line, size_t& at) {
  while (at < line.size() && line[at] == ' ') ++at;
  const size_t start = at;
  while (at < line.size() && line[at] != ' ') ++at;
  return line.substr(start, at - start);
}

// "dog_house" -> "dog house"; adjective words carry a syntactic marker such as "(a)" or "(ip)".
std::string wordText(std::string_view word) {
  if (const size_t paren = word.find('('); paren != std::string_view::npos && word.ends_with(')')) {
    word = word.substr(0, paren);
  }
  std::string text(word);
  std::replace(text.begin(), text.end(), '_', ' ');
  return text;
}

std::string lowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

const char* typeOf(char partOfSpeech) {
  for (const Part& part : kParts) {
    if (part.code == partOfSpeech) return part.type;
  }
  return "word";
}

struct IndexLemma {
  std::string_view text;
  std::string_view offsets;  // the line's synset offsets, space-separated
};

// The lemmas of one index file, in file order. Index lines: lemma pos synset_cnt p_cnt
// [ptr_symbol...] sense_cnt tagsense_cnt synset_offset... ; lines that begin with a space are the
// licence. Lines that do not parse are skipped.
std::vector<IndexLemma> readIndex(const std::string& text, const std::filesystem::path& path) {
  std::vector<IndexLemma> lemmas;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line(text.data() + at, end - at);
    at = end + 1;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.remove_suffix(1);
    if (line.empty() || line.front() == ' ') continue;
    size_t field = 0;
    const std::string_view lemma = nextField(line, field);
    nextField(line, field);  // part of speech
    uint32_t synsets = 0;
    if (!parseNumber(nextField(line, field), synsets) || synsets == 0) continue;
    // The offsets are the last `synsets` fields, 8 digits each.
    const size_t length = synsets * 9 - 1;
    if (line.size() < field + length + 1) continue;
    lemmas.push_back({lemma, line.substr(line.size() - length)});
  }
  if (lemmas.empty()) throw std::runtime_error(path.string() + " holds no lemma");
  // The files are sorted for binary search; a file that is not gets sorted here.
  const auto byText = [](const IndexLemma& a, const IndexLemma& b) { return a.text < b.text; };
  if (!std::is_sorted(lemmas.begin(), lemmas.end(), byText)) {
    std::stable_sort(lemmas.begin(), lemmas.end(), byText);
  }
  return lemmas;
}

}  // namespace

std::unique_ptr<WordNetCorpus> WordNetCorpus::load(const std::filesystem::path& directory) {
  auto corpus = std::make_unique<WordNetCorpus>();
  std::vector<IndexLemma> indexes[4];
  for (size_t p = 0; p < 4; ++p) {
    const auto indexPath = directory / (std::string("index.") + kParts[p].name);
    corpus->indexFiles_[p] = readWhole(indexPath);
    indexes[p] = readIndex(corpus->indexFiles_[p], indexPath);
    corpus->dataFiles_[p] = readWhole(directory / (std::string("data.") + kParts[p].name));
  }

  // Merge the four sorted lists; a text in several of them becomes one lemma with the senses of
  // each, nouns first.
  size_t next[4] = {0, 0, 0, 0};
  for (;;) {
    std::string_view smallest;
    bool any = false;
    for (size_t p = 0; p < 4; ++p) {
      if (next[p] < indexes[p].size() && (!any || indexes[p][next[p]].text < smallest)) {
        smallest = indexes[p][next[p]].text;
        any = true;
      }
    }
    if (!any) break;
    Lemma lemma{smallest, static_cast<uint32_t>(corpus->senses_.size()), 0};
    for (size_t p = 0; p < 4; ++p) {
      while (next[p] < indexes[p].size() && indexes[p][next[p]].text == smallest) {
        const std::string_view offsets = indexes[p][next[p]++].offsets;
        for (size_t at = 0; at < offsets.size();) {
          uint32_t offset = 0;
          if (parseNumber(nextField(offsets, at), offset)) {
            corpus->senses_.push_back({kParts[p].code, offset});
            ++lemma.senseCount;
          }
        }
      }
    }
    if (lemma.senseCount > 0) corpus->lemmas_.push_back(lemma);
  }
  return corpus;
}

const std::string& WordNetCorpus::dataFile(char partOfSpeech) const {
  for (size_t p = 0; p < 4; ++p) {
    if (kParts[p].code == partOfSpeech) return dataFiles_[p];
  }
  return dataFiles_[3];
}

const WordNetCorpus::Lemma* WordNetCorpus::complete(std::string_view typed, double* score) const {
  // Lemmas are kept as the files write them, lower case with '_' between words.
  std::string prefix = lowerAscii(typed);
  std::replace(prefix.begin(), prefix.end(), ' ', '_');
  if (prefix.empty()) return nullptr;

  // The typed text itself when it is a lemma, else the lemma beginning with it that has the
  // most senses (the more common word), the shorter one on a tie, then the first.
  const auto first = std::lower_bound(
      lemmas_.begin(), lemmas_.end(), prefix,
      [](const Lemma& lemma, const std::string& text) { return lemma.text < text; });
  const Lemma* best = nullptr;
  const Lemma* exact = nullptr;
  size_t prefixSenses = 0;
  for (auto it = first; it != lemmas_.end() && it->text.starts_with(prefix); ++it) {
    prefixSenses += it->senseCount;
    if (it->text == prefix) exact = &*it;
    if (best == nullptr || it->senseCount > best->senseCount ||
        (it->senseCount == best->senseCount && it->text.size() < best->text.size())) {
      best = &*it;
    }
  }
  if (exact != nullptr) best = exact;
  if (best != nullptr && score != nullptr) {
    *score = static_cast<double>(best->senseCount) / static_cast<double>(prefixSenses);
  }
  return best;
}

std::optional<WordNetCorpus::SenseText> WordNetCorpus::sense(const Lemma& lemma,
                                                             uint32_t index) const {
  if (index >= lemma.senseCount) return std::nullopt;
  const Sense& sense = senses_[lemma.firstSense + index];
  // Data lines: offset lex_filenum ss_type w_cnt (hex) word lex_id ... | gloss
  const std::string& data = dataFile(sense.partOfSpeech);
  if (sense.offset >= data.size()) return std::nullopt;
  const size_t end = std::min(data.find('\n', sense.offset), data.size());
  const std::string_view line(data.data() + sense.offset, end - sense.offset);
  const size_t bar = line.find(" | ");
  const std::string_view head = line.substr(0, bar);
  size_t at = 0;
  uint32_t offset = 0, words = 0;
  if (!parseNumber(nextField(head, at), offset) || offset != sense.offset) {
    return std::nullopt;  // not the line the index points at
  }
  nextField(head, at);  // lexicographer file
  nextField(head, at);  // synset type
  if (!parseNumber(nextField(head, at), words, 16)) return std::nullopt;

  SenseText text{.id = "", .words = {}, .gloss = "", .type = typeOf(sense.partOfSpeech)};
  for (uint32_t w = 0; w < words; ++w) {
    const std::string_view word = nextField(head, at);
    nextField(head, at);  // lex_id
    if (word.empty()) break;
    text.words.push_back(wordText(word));
  }
  if (bar != std::string_view::npos) text.gloss = line.substr(bar + 3);
  while (!text.gloss.empty() && (text.gloss.back() == ' ' || text.gloss.back() == '\r')) {
    text.gloss.pop_back();
  }
  char id[32];
  std::snprintf(id, sizeof id, "wordnet:%c:%08u", sense.partOfSpeech, sense.offset);
  text.id = id;
  return text;
}

std::string WordNetCorpus::SenseText::title() const {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text.append(", ");
    text.append(word);
  }
  return text;
}

std::string WordNetCorpus::display(const Lemma& lemma) { return wordText(lemma.text); }

nlohmann::ordered_json WordNetCorpus::answer(std::string_view typed) const {
  const std::string shown = lowerAscii(typed);
  nlohmann::ordered_json reply = {{"status", "OK"},
                                  {"query", shown},
                                  {"max_age", kMaxAgeSeconds},
                                  {"completion_score", 0.0},
                                  {"results", nlohmann::ordered_json::array()}};
  double score = 0;
  const Lemma* best = complete(typed, &score);
  if (best == nullptr) return reply;

  const std::string completion = display(*best);
  reply["query"] = completion;
  reply["completion_score"] = score;
  auto& results = reply["results"];
  for (uint32_t s = 0; s < best->senseCount && results.size() < kMaxResults; ++s) {
    const auto text = sense(*best, s);
    if (!text) continue;
    const std::string title = text->title();
    results.push_back({{"id", text->id},
                       {"title", title.empty() ? completion : title},
                       {"description", text->gloss},
                       {"type", text->type}});
  }
  return reply;
}

}  // namespace orvex::backend
