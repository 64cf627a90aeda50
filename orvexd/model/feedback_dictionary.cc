#include "orvexd/model/feedback_dictionary.h"

#include <charconv>
#include <cmath>

#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

constexpr auto kSharedKeyCount = static_cast<uint16_t>(kFeedbackSharedKeys.size());

// The shared keys sorted by name, with their indices, for lookups of keys that arrive as text;
// made once, on first use.
using SortedKeys = std::array<std::pair<std::string_view, uint16_t>, kFeedbackSharedKeys.size()>;
const SortedKeys& sortedKeys() {
  static const SortedKeys keys = [] {
    SortedKeys sorted;
    for (uint16_t i = 0; i < kSharedKeyCount; ++i) sorted[i] = {kFeedbackSharedKeys[i], i};
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }();
  return keys;
}

void appendNumber(std::string& out, auto value) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

void appendDouble(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  const std::size_t start = out.size();
  appendNumber(out, value);
  // Keep the number a double for readers that tell integers from reals.
  if (out.find_first_of(".e", start) == std::string::npos) out += ".0";
}

}  // namespace

std::optional<uint16_t> sharedKeyIndex(std::string_view name) {
  const auto& keys = sortedKeys();
  const auto found = std::lower_bound(keys.begin(), keys.end(), name,
                                      [](const std::pair<std::string_view, uint16_t>& entry,
                                         std::string_view key) { return entry.first < key; });
  if (found == keys.end() || found->first != name) return std::nullopt;
  return found->second;
}

// ---- FeedbackDictionary -----------------------------------------------------------------

FeedbackDictionary::FeedbackDictionary() = default;
FeedbackDictionary::FeedbackDictionary(std::size_t capacity) { entries_.reserve(capacity); }
FeedbackDictionary::FeedbackDictionary(FeedbackDictionary&&) noexcept = default;
FeedbackDictionary& FeedbackDictionary::operator=(FeedbackDictionary&&) noexcept = default;
FeedbackDictionary::~FeedbackDictionary() = default;

FeedbackDictionary::FeedbackDictionary(const FeedbackDictionary& other)
    : entries_(other.entries_),
      ownKeys_(other.ownKeys_ ? std::make_unique<std::vector<std::string>>(*other.ownKeys_)
                              : nullptr) {}

FeedbackDictionary& FeedbackDictionary::operator=(const FeedbackDictionary& other) {
  if (this != &other) *this = FeedbackDictionary(other);
  return *this;
}

std::string_view FeedbackDictionary::keyName(uint16_t key) const {
  if (key < kSharedKeyCount) return kFeedbackSharedKeys[key];
  return (*ownKeys_)[key - kSharedKeyCount];
}

void FeedbackDictionary::put(uint16_t key, FeedbackValue&& value) {
  for (Entry& entry : entries_) {
    if (entry.key == key) {
      entry.value = std::move(value);
      return;
    }
  }
  entries_.push_back(Entry{key, std::move(value)});
}

void FeedbackDictionary::set(FeedbackKey key, FeedbackValue value) {
  put(key.index(), std::move(value));
}

void FeedbackDictionary::setAnyKey(std::string_view key, FeedbackValue value) {
  if (const auto shared = sharedKeyIndex(key)) {
    put(*shared, std::move(value));
    return;
  }
  if (!ownKeys_) ownKeys_ = std::make_unique<std::vector<std::string>>();
  for (std::size_t i = 0; i < ownKeys_->size(); ++i) {
    if ((*ownKeys_)[i] == key) {
      put(static_cast<uint16_t>(kSharedKeyCount + i), std::move(value));
      return;
    }
  }
  ownKeys_->emplace_back(key);
  entries_.push_back(
      Entry{static_cast<uint16_t>(kSharedKeyCount + ownKeys_->size() - 1), std::move(value)});
}

const FeedbackValue* FeedbackDictionary::find(std::string_view key) const {
  for (const Entry& entry : entries_) {
    if (keyName(entry.key) == key) return &entry.value;
  }
  return nullptr;
}

nlohmann::json FeedbackDictionary::toJson() const {
  nlohmann::json object = nlohmann::json::object();
  for (const Entry& entry : entries_)
    object[std::string(keyName(entry.key))] = entry.value.toJson();
  return object;
}

std::string FeedbackDictionary::dump() const {
  std::string out;
  appendJson(out);
  return out;
}

void FeedbackDictionary::appendJson(std::string& out) const {
  out += '{';
  bool first = true;
  for (const Entry& entry : entries_) {
    if (!first) out += ',';
    first = false;
    appendJsonString(out, keyName(entry.key));
    out += ':';
    entry.value.appendJson(out);
  }
  out += '}';
}

bool operator==(const FeedbackDictionary& a, const FeedbackDictionary& b) {
  if (a.size() != b.size()) return false;
  for (const auto& entry : a.entries_) {
    const FeedbackValue* other = b.find(a.keyName(entry.key));
    if (other == nullptr || !(*other == entry.value)) return false;
  }
  return true;
}

// ---- FeedbackValue ----------------------------------------------------------------------

nlohmann::json FeedbackValue::toJson() const {
  return std::visit(
      [](const auto& value) -> nlohmann::json {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, std::string_view>) {
          return std::string(value);
        } else if constexpr (std::is_same_v<T, FeedbackArray>) {
          nlohmann::json array = nlohmann::json::array();
          for (const FeedbackValue& element : value) array.push_back(element.toJson());
          return array;
        } else if constexpr (std::is_same_v<T, FeedbackDictionary>) {
          return value.toJson();
        } else {
          return value;
        }
      },
      storage_);
}

void FeedbackValue::appendJson(std::string& out) const {
  std::visit(
      [&out](const auto& value) {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          out += "null";
        } else if constexpr (std::is_same_v<T, bool>) {
          out += value ? "true" : "false";
        } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t>) {
          appendNumber(out, value);
        } else if constexpr (std::is_same_v<T, double>) {
          appendDouble(out, value);
        } else if constexpr (std::is_same_v<T, std::string_view> ||
                             std::is_same_v<T, std::string>) {
          appendJsonString(out, value);
        } else if constexpr (std::is_same_v<T, FeedbackArray>) {
          out += '[';
          for (std::size_t i = 0; i < value.size(); ++i) {
            if (i > 0) out += ',';
            value[i].appendJson(out);
          }
          out += ']';
        } else if constexpr (std::is_same_v<T, FeedbackDictionary>) {
          value.appendJson(out);
        } else {
          out += value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
      },
      storage_);
}

bool operator==(const FeedbackValue& a, const FeedbackValue& b) {
  // Static names and owned strings of the same text are the same value.
  const auto textOf = [](const FeedbackValue& v) -> std::optional<std::string_view> {
    if (const auto* view = std::get_if<std::string_view>(&v.storage_)) return *view;
    if (const auto* text = std::get_if<std::string>(&v.storage_)) return std::string_view(*text);
    return std::nullopt;
  };
  const auto textA = textOf(a);
  const auto textB = textOf(b);
  if (textA || textB) return textA == textB;
  if (a.storage_.index() != b.storage_.index()) return a.toJson() == b.toJson();
  return a.storage_ == b.storage_;
}

void appendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  std::size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const std::size_t length = utf8SequenceLength(text, i);
      if (length == 0) {
        out += "\xEF\xBF\xBD";  // U+FFFD for a byte that starts no valid sequence
        ++i;
      } else {
        out.append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += kHex[c >> 4];
          out += kHex[c & 0xF];
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
}

}  // namespace orvex
