// The upload form of the feedback records, written from the field list that also gives their
// D-Bus and archive forms (feedback_codec.h).
//
// Each entry of a visit() list is uploaded under its own key, written the natural way for its
// type, unless a last argument says otherwise:
//
//   v("input", self.input);                                   // "input": the text, or null
//   v("queryId", self.queryId, upload::skip);                 // not uploaded
//   v("corrected_query", self.correctedQuery, upload::ifPresent);  // left out when absent
//   v("fbr", self.fbr, upload::when(self.isOrvex()));         // only when the condition holds
//   v.enumeration("lookupSelectionType", self.lookupSelectionType, table,
//                 upload::as("trigger_event"));               // under another key
//   v("section", self.section, upload::as("section_id", &NBResultSection::identifier));
//                                                             // one member of a nested record,
//                                                             // null when there is none
//   v("result", self.result, upload::flatten);                // the nested record's own keys
//   v("error", self.error, upload::by(self, uploadError));    // whatever `uploadError` writes
//
// and two kinds of entries stand in the upload form alone, which the other forms pass over:
//
//   v.uploadConstant("ranker_did_rank", true);
//   v.uploadDerived(upload::by(self, uploadSuggestionQuery));
//
// The natural way: text and numbers as they are, an absent value as null, an enumeration as the
// name of its value in its table (null for a value outside it), a list as an array, a nested
// record as an object of its own upload form, a string map as an object, free-form JSON as it
// is. Keys are checked when the program is compiled: an entry uploaded under its own key must
// have a key of the shared set (kFeedbackSharedKeys), so a field the upload form leaves out has
// to say upload::skip. Keys come out in the order the list sets them; a key set again keeps its
// place and takes the new value.
//
// The writer makes each object in one allocation: a first pass over the list counts its keys
// (an upload::by entry counts as one) and the second writes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/feedback_dictionary.h"
#include "orvexd/model/feedback_tables.h"

namespace orvex {
namespace upload {

struct Skip {};
inline constexpr Skip skip;
struct IfPresent {};
inline constexpr IfPresent ifPresent;
struct Flatten {};
inline constexpr Flatten flatten;

struct When {
  bool holds;
};
constexpr When when(bool holds) { return When{holds}; }

struct As {
  FeedbackKey key;
};
constexpr As as(FeedbackKey key) { return As{key}; }

template <class Record, class Member>
struct AsMember {
  FeedbackKey key;
  Member Record::*member;
  bool holds = true;

  // Written only when `condition` holds.
  constexpr AsMember when(bool condition) const { return AsMember{key, member, condition}; }
};
template <class Record, class Member>
constexpr AsMember<Record, Member> as(FeedbackKey key, Member Record::*member) {
  return AsMember<Record, Member>{key, member};
}

template <class Record>
struct By {
  const Record* record;
  void (*write)(const Record&, FeedbackDictionary&);
};
template <class Record>
By<Record> by(const std::type_identity_t<Record>& record,
              void (*write)(const Record&, FeedbackDictionary&)) {
  return By<Record>{&record, write};
}

}  // namespace upload

class FeedbackUploadWriter {
 public:
  // The upload object of `record` (a feedback record or a nested one), with room for `extraKeys`
  // more that the caller adds.
  template <class Record>
  static FeedbackDictionary dictionaryOf(const Record& record, std::size_t extraKeys = 0) {
    FeedbackUploadWriter counter(nullptr);
    Record::visit(counter, record);
    FeedbackDictionary dictionary(counter.count_ + extraKeys);
    FeedbackUploadWriter writer(&dictionary);
    Record::visit(writer, record);
    return dictionary;
  }

  // A value written the natural way.
  template <class T>
  static FeedbackValue valueOf(const T& value) {
    if constexpr (feedback_codec::Optional<T>) {
      return value ? valueOf(*value) : FeedbackValue();
    } else if constexpr (std::is_same_v<T, std::string> || std::is_arithmetic_v<T> ||
                         std::is_same_v<T, nlohmann::json>) {
      return FeedbackValue(value);
    } else if constexpr (std::is_same_v<T, FeedbackStringMap>) {
      FeedbackDictionary fields(value.size());
      for (const auto& [name, text] : value) fields.setAnyKey(name, text);
      return fields;
    } else if constexpr (feedback_codec::Vector<T>) {
      FeedbackArray array;
      array.reserve(value.size());
      for (const auto& element : value) array.push_back(valueOf(element));
      return array;
    } else {
      static_assert(feedback_codec::NestedRecord<T>, "a field the upload form cannot hold");
      return dictionaryOf(value);
    }
  }

  static FeedbackValue nameIn(FeedbackTable table, uint32_t value) {
    return FeedbackValue::name(table.nameAt(value));
  }

  template <class T>
  void operator()(FeedbackKey key, const T& value) {
    put(key, [&] { return valueOf(value); });
  }
  template <class T>
  void operator()(std::string_view, const T&, upload::Skip) {}
  template <class T>
  void operator()(FeedbackKey key, const T& value, upload::IfPresent) {
    if (value) put(key, [&] { return valueOf(*value); });
  }
  template <class T>
  void operator()(FeedbackKey key, const T& value, upload::When when) {
    if (when.holds) put(key, [&] { return valueOf(value); });
  }
  template <class T>
  void operator()(std::string_view, const T& value, upload::As as) {
    put(as.key, [&] { return valueOf(value); });
  }
  template <class T, class Record, class Member>
  void operator()(std::string_view, const T& value, upload::AsMember<Record, Member> as) {
    static_assert(std::is_same_v<T, std::optional<Record>>);
    if (!as.holds) return;
    put(as.key, [&] { return value ? valueOf((*value).*as.member) : FeedbackValue(); });
  }
  template <class T>
  void operator()(std::string_view, const T& value, upload::Flatten) {
    if (value) T::value_type::visit(*this, *value);
  }
  template <class T, class Record>
  void operator()(std::string_view, const T&, upload::By<Record> by) {
    uploadDerived(by);
  }

  void enumeration(FeedbackKey key, uint32_t value, FeedbackTable table) {
    put(key, [&] { return nameIn(table, value); });
  }
  void enumeration(std::string_view, uint32_t, FeedbackTable, upload::Skip) {}
  void enumeration(FeedbackKey key, uint32_t value, FeedbackTable table, upload::When when) {
    if (when.holds) enumeration(key, value, table);
  }
  void enumeration(std::string_view, uint32_t value, FeedbackTable table, upload::As as) {
    enumeration(as.key, value, table);
  }

  // A text constant is a name of the program's own, written as a view.
  template <class T>
  void uploadConstant(FeedbackKey key, const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      put(key, [&] { return FeedbackValue::StaticName{value}; });
    } else {
      put(key, [&] { return value; });
    }
  }
  template <class Record>
  void uploadDerived(upload::By<Record> by) {
    if (dictionary_ == nullptr) {
      ++count_;
    } else {
      by.write(*by.record, *dictionary_);
    }
  }

 private:
  // Counts the keys when there is no dictionary to write into.
  explicit FeedbackUploadWriter(FeedbackDictionary* dictionary) : dictionary_(dictionary) {}

  template <class Make>
  void put(FeedbackKey key, Make&& make) {
    if (dictionary_ == nullptr) {
      ++count_;
    } else {
      dictionary_->set(key, make());
    }
  }

  FeedbackDictionary* dictionary_;
  std::size_t count_ = 0;
};

}  // namespace orvex
