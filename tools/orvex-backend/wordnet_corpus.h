// The word list the search endpoint answers from: the lemmas of a WordNet 3.0 database (the
// index.noun, index.verb, index.adj and index.adv files) with the glosses of their senses (the
// data.* files of the same directory).
//
// Loading keeps the index and data files in memory as they are and merges the four index files,
// each sorted by lemma, into one sorted vector of lemmas that refer into them (no sort, no
// allocation per lemma: start-up takes a few tens of milliseconds). A sense's line is found in
// its data file by byte offset when an answer needs it. Once loaded the corpus is read-only and
// safe to use from several threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvex::backend {

class WordNetCorpus {
 public:
  // Throws std::runtime_error, naming the file, when `directory` lacks a readable index or data
  // file of any of the four parts of speech or an index file holds no lemma.
  static std::unique_ptr<WordNetCorpus> load(const std::filesystem::path& directory);
  WordNetCorpus() = default;  // empty; load() fills one

  struct Sense {
    char partOfSpeech;  // 'n', 'v', 'a' or 'r', as the files name them
    uint32_t offset;    // byte offset of the synset's line in its data file
  };
  struct Lemma {
    std::string_view text;  // as the index files write it: lower case, '_' between words
    uint32_t firstSense;    // into senses_
    uint32_t senseCount;
  };

  // One sense as its data line describes it.
  struct SenseText {
    std::string id;                  // "wordnet:" part of speech ":" offset: "wordnet:n:02084071"
    std::vector<std::string> words;  // the synset's words, '_' read as a space
    std::string gloss;               // the definition, then examples in double quotes
    const char* type;                // "noun", "verb", "adjective" or "adverb"

    // The words, comma-separated: "dog, domestic dog, Canis familiaris".
    std::string title() const;
  };

  // The search answer for `typed` (see README.md, "search"): the best lemma that begins with
  // it, lower-cased, and its senses.
  nlohmann::ordered_json answer(std::string_view typed) const;

  // The lemma `typed` completes to, as search answers choose it: `typed` itself (any case)
  // when it is a lemma, else the lemma beginning with it that has the most senses. Null when
  // none begins with it. `score`, when given, receives the completion's share of the senses of
  // all lemmas beginning with `typed`.
  const Lemma* complete(std::string_view typed, double* score = nullptr) const;
  // The sense of `lemma` at `index` (below its senseCount); none when its data line is not
  // where the index file says.
  std::optional<SenseText> sense(const Lemma& lemma, uint32_t index) const;
  // The lemma as shown in answers: "ice cream" for "ice_cream".
  static std::string display(const Lemma& lemma);

  const std::vector<Lemma>& lemmas() const { return lemmas_; }
  std::size_t lemmaCount() const { return lemmas_.size(); }

  static constexpr int kMaxAgeSeconds = 300;
  static constexpr std::size_t kMaxResults = 10;

 private:
  const std::string& dataFile(char partOfSpeech) const;

  // The index and data files as read; lemmas_ points into the index files.
  std::string indexFiles_[4];
  std::string dataFiles_[4];
  std::vector<Lemma> lemmas_;  // sorted by text, each text once, senses of all parts of speech
  std::vector<Sense> senses_;
};

}  // namespace orvex::backend
