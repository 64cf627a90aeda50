// The upload form of feedback records: small JSON objects whose keys come from one shared set.
//
// A session holds hundreds of records and each becomes one or more small objects (a visible-
// results record holds a dozen results, each an object of its own) that all use the same few
// dozen keys. A FeedbackDictionary therefore names its keys by their index in the one process-
// wide table kFeedbackSharedKeys instead of owning a copy of each, keeps its entries in one
// contiguous block, and holds enumeration names as views of the static tables. Keys outside the
// table (a custom record's own object may use any) are kept by the dictionary itself.
//
// Values are JSON values: null, booleans, integers, doubles, strings, arrays, dictionaries,
// and nlohmann::json for parts that arrive as free-form JSON. dump() writes compact JSON text
// directly; toJson() converts to nlohmann::json for callers that want a document.
//
// The key table is constant; dictionaries are plain values, safe to read from several threads
// and to hand between threads.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "orvexd/model/feedback_tables.h"

namespace orvex {

namespace feedback_dictionary_detail {

// The keys that name no feedback kind.
inline constexpr std::array<std::string_view, 66> kOtherSharedKeys = {
    "type",
    "id",
    "name",
    "query_id",
    "client_query_id",
    "timestamp",
    "input",
    "reason",
    "trigger_event",
    "headers",
    "url",
    "provider",
    "response_size",
    "status_code",
    "network_timing_data",
    "connection_reused",
    "interface",
    "peer_address",
    "uuid",
    "sections",
    "results",
    "result",
    "ranking_score",
    "top_hit",
    "endpoint_type",
    "blending_duration",
    "local_section_position",
    "local_result_position",
    "fbr",
    "hidden_results",
    "duplicate_results",
    "action_destination",
    "code",
    "domain",
    "underlying_error",
    "card_type",
    "destination",
    "bundle_id",
    "action_target",
    "suggestions",
    "query",
    "suggestion",
    "score",
    "index_type",
    "on_lock_screen",
    "is_over_app",
    "section_bundle_id",
    "orvex_status",
    "orvex_duration",
    "orvex_partial_client_ip",
    "corrected_query",
    "static_correction",
    "section_header_type",
    "fbq",
    "section_id",
    "result_type",
    "suggestion_type",
    "suggestion_query",
    "third_party_suggestion",
    "ranker_did_rank",
    "ranker_timeout",
    "ranker_duration",
    "ranker_results",
    "publicly_indexable",
    "local_features",
    "orvex",
};

// The feedback kinds in the order of the key set: their own, with "search_start" and
// "search_end" moved up after "local_search_end".
constexpr auto sharedKeys() {
  constexpr auto& kinds = feedback_tables::kFeedbackTypeNames;
  std::array<std::string_view, kinds.size() + kOtherSharedKeys.size()> keys{};
  std::size_t next = 0;
  const auto take = [&](NBFeedbackType first, NBFeedbackType last) {
    for (auto i = static_cast<std::size_t>(first); i <= static_cast<std::size_t>(last); ++i) {
      keys[next++] = kinds[i];
    }
  };
  take(NBFeedbackType::kVisibleResults, NBFeedbackType::kLocalSearchEnd);
  take(NBFeedbackType::kSearchStart, NBFeedbackType::kSearchEnd);
  take(NBFeedbackType::kSearchViewAppear, NBFeedbackType::kCardViewDisappear);
  take(NBFeedbackType::kVisibleSuggestions, NBFeedbackType::kConnectionInvalidated);
  for (std::string_view key : kOtherSharedKeys) keys[next++] = key;
  return keys;
}

}  // namespace feedback_dictionary_detail

// The key names used by every encoder: first the 33 feedback-kind names, then the others.
inline constexpr auto kFeedbackSharedKeys = feedback_dictionary_detail::sharedKeys();

static_assert(kFeedbackSharedKeys[5] == "search_start" &&
                  kFeedbackSharedKeys[32] == "connection_invalidated",
              "every feedback kind is a key");

// The index of `name` in kFeedbackSharedKeys, or nothing.
std::optional<uint16_t> sharedKeyIndex(std::string_view name);

// A key of the shared set, checked when the program is compiled: set("trigger_event", ...)
// compiles, set("trigger-event", ...) does not.
class FeedbackKey {
 public:
  consteval FeedbackKey(const char* name) : index_(find(name)) {}
  static constexpr FeedbackKey fromIndex(uint16_t index) { return FeedbackKey(index, 0); }

  constexpr uint16_t index() const { return index_; }
  constexpr std::string_view name() const { return kFeedbackSharedKeys[index_]; }

 private:
  constexpr FeedbackKey(uint16_t index, int) : index_(index) {}
  static consteval uint16_t find(std::string_view name) {
    for (uint16_t i = 0; i < kFeedbackSharedKeys.size(); ++i) {
      if (kFeedbackSharedKeys[i] == name) return i;
    }
    throw "not a key of the shared key set";  // makes the constant evaluation fail
  }
  uint16_t index_;
};

class FeedbackValue;
using FeedbackArray = std::vector<FeedbackValue>;

class FeedbackDictionary {
 public:
  FeedbackDictionary();
  // Room for `capacity` entries, so that an encoder allocates once.
  explicit FeedbackDictionary(std::size_t capacity);
  FeedbackDictionary(const FeedbackDictionary& other);
  FeedbackDictionary& operator=(const FeedbackDictionary& other);
  FeedbackDictionary(FeedbackDictionary&&) noexcept;
  FeedbackDictionary& operator=(FeedbackDictionary&&) noexcept;
  ~FeedbackDictionary();

  // Sets the value of a key, replacing the one it had.
  void set(FeedbackKey key, FeedbackValue value);
  // The same for a key known only at run time; keys of the shared set are still stored by
  // their index.
  void setAnyKey(std::string_view key, FeedbackValue value);
  // For a record's optional field: writes null under `key` when `field` holds nothing, and says
  // whether it holds something for the caller to write.
  template <typename Optional>
  bool nullUnless(FeedbackKey key, const Optional& field);
  const FeedbackValue* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  std::size_t size() const;
  bool empty() const { return size() == 0; }

  // Calls `visit(key, value)` for each entry in the order they were first set.
  template <typename Visitor>
  void forEach(Visitor&& visit) const;

  nlohmann::json toJson() const;
  // Compact JSON text; invalid UTF-8 is written as U+FFFD, non-finite numbers as null.
  std::string dump() const;
  void appendJson(std::string& out) const;

  friend bool operator==(const FeedbackDictionary& a, const FeedbackDictionary& b);

 private:
  struct Entry;
  std::string_view keyName(uint16_t key) const;
  void put(uint16_t key, FeedbackValue&& value);

  std::vector<Entry> entries_;
  // Keys outside the shared set; entry key kFeedbackSharedKeys.size() + i names the i-th.
  std::unique_ptr<std::vector<std::string>> ownKeys_;
};

class FeedbackValue {
 public:
  // A name from one of the static tables; the view must outlive every use of the value.
  struct StaticName {
    std::string_view name;
  };

  FeedbackValue() = default;  // null
  FeedbackValue(std::nullptr_t) {}
  FeedbackValue(bool value) : storage_(value) {}
  template <std::signed_integral T>
  FeedbackValue(T value) : storage_(static_cast<int64_t>(value)) {}
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) FeedbackValue(T value)
      : storage_(static_cast<uint64_t>(value)) {}
  FeedbackValue(double value) : storage_(value) {}
  FeedbackValue(StaticName value) : storage_(value.name) {}
  FeedbackValue(std::string value) : storage_(std::move(value)) {}
  FeedbackValue(FeedbackArray value) : storage_(std::move(value)) {}
  FeedbackValue(FeedbackDictionary value) : storage_(std::move(value)) {}
  FeedbackValue(nlohmann::json value) : storage_(std::move(value)) {}
  // A string, or null when there is none.
  static FeedbackValue text(const std::optional<std::string>& value) {
    return value ? FeedbackValue(*value) : FeedbackValue();
  }
  // A table name, or null when there is none.
  static FeedbackValue name(std::optional<std::string_view> value) {
    return value ? FeedbackValue(StaticName{*value}) : FeedbackValue();
  }

  bool isNull() const { return std::holds_alternative<std::monostate>(storage_); }
  const FeedbackDictionary* asDictionary() const {
    return std::get_if<FeedbackDictionary>(&storage_);
  }
  FeedbackDictionary* asDictionary() { return std::get_if<FeedbackDictionary>(&storage_); }
  const FeedbackArray* asArray() const { return std::get_if<FeedbackArray>(&storage_); }

  nlohmann::json toJson() const;
  void appendJson(std::string& out) const;

  friend bool operator==(const FeedbackValue& a, const FeedbackValue& b);

 private:
  std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string_view, std::string,
               FeedbackArray, FeedbackDictionary, nlohmann::json>
      storage_;
};

struct FeedbackDictionary::Entry {
  uint16_t key;
  FeedbackValue value;
};

inline std::size_t FeedbackDictionary::size() const { return entries_.size(); }

template <typename Optional>
bool FeedbackDictionary::nullUnless(FeedbackKey key, const Optional& field) {
  if (field) return true;
  set(key, FeedbackValue());
  return false;
}

template <typename Visitor>
void FeedbackDictionary::forEach(Visitor&& visit) const {
  for (const Entry& entry : entries_) visit(keyName(entry.key), entry.value);
}

// Appends `text` to `out` as a JSON string literal.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace orvex
