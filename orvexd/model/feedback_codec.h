// The D-Bus and archive forms of the feedback records, read and written from one field list.
//
// Every record class (and every nested record: results, sections, suggestions, ...) lists its
// fields once, in a static member template
//
//   template <class V, class Self> static void visit(V& v, Self& self) {
//     Parent::visit(v, self);
//     v.enumeration("trigger_event", self.triggerEvent, kSomeTable);
//     v("input", self.input);
//     v("queryId", self.queryId, upload::skip);
//   }
//
// and the visitors below turn that list into either form and back (the last argument of an
// entry, and the entries only the upload form has, are for feedback_upload_writer.h):
// - the D-Bus form, a JSON object: "$class", then each field under its key; absent values are
//   null, enumerations their integer values, nested records JSON objects of the same form
//   (whose "$class" a reader only needs where a field can hold more than one class), free-form
//   JSON as it is, and the bytes inside timing data as {"$data": "<base64>"};
// - the archive form, a property-list dictionary with the same keys: absent values are left
//   out, free-form JSON is kept as its compact text.
//
// Reading is total. A value of the wrong type, a missing field that is not optional, an
// enumeration value outside its table, a string holding NUL, a number that is not finite, an
// unknown "$class" or nesting beyond kMaxNestedDepth makes the whole read fail with a reason
// that names the field ("results[2].result_type: 40 is outside its table of 15 names"); no
// partly read record is ever handed out. Keys a class does not know are ignored, so a newer
// client may send more.
#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/plist_binary_writer.h"
#include "orvexd/base/property_list.h"
#include "orvexd/model/feedback_tables.h"

namespace orvex {

using FeedbackStringMap = std::map<std::string, std::string>;

// A value or the error that kept it from being made.
template <typename T>
class DecodeResult {
 public:
  DecodeResult(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  DecodeResult(OrvexError error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }
  // Only when ok().
  const T& value() const& { return std::get<0>(state_); }
  T& value() & { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  // Only when !ok().
  const OrvexError& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, OrvexError> state_;
};

namespace feedback_codec {

// Deeper nesting of records (an error's chain of underlying errors, say) is refused.
inline constexpr int kMaxNestedDepth = 64;
// Free-form JSON nested deeper than this is refused.
inline constexpr int kMaxJsonDepth = 256;

struct DBusForm {
  using Node = nlohmann::json;
  static constexpr std::string_view kName = "D-Bus form";
};
struct ArchiveForm {
  using Node = PlistValue;
  static constexpr std::string_view kName = "archive form";
};

// Nested records name their classes in kClassNames; those with more than one class keep the
// one they are in `recordClass`, an enumeration over those names.
template <typename T>
concept NestedRecord = requires {
  T::kClassNames;
};
template <typename T>
concept Optional = requires {
  typename T::value_type;
}
&&std::same_as<T, std::optional<typename T::value_type>>;
template <typename T>
concept Vector = requires {
  typename T::value_type;
}
&&std::same_as<T, std::vector<typename T::value_type>>;

// Text as the archive can hold it: valid UTF-8 without NUL (anything else becomes U+FFFD).
std::string archivableText(std::string_view text);
// What keeps `json` from being carried as free-form JSON: nesting deeper than `limit`, or a
// number that is not finite (no JSON text can spell it); nothing when it can be carried.
std::optional<std::string> freeJsonProblem(const nlohmann::json& json, int limit);

// Timing data between its two forms. Bytes travel as {"$data": "<base64>"} in JSON.
nlohmann::json plistToJson(const PlistValue& value);
// Nothing, with the reason in `error`, for null, bad base64, NUL in text or non-finite numbers.
std::optional<PlistValue> jsonToPlist(const nlohmann::json& json, std::string& error);
// Checks timing data read from an archive against the same rules (and refuses dates).
bool plistIsPortable(const PlistValue& value, std::string& error);

// Entries of a field list that only the upload form has (feedback_upload_writer.h), and which
// the other visitors pass over; their last arguments, which say how an entry is uploaded, too.
struct PassesOverUploadEntries {
  void uploadConstant(const auto&...) {}
  void uploadDerived(const auto&...) {}
};

// ---- Writing ------------------------------------------------------------------------------

template <typename Form>
typename Form::Node encodeValue(const auto& value);

template <typename Form>
class FieldWriter : public PassesOverUploadEntries {
 public:
  using Node = typename Form::Node;

  FieldWriter() {
    if constexpr (std::is_same_v<Form, DBusForm>) object_ = nlohmann::json::object();
  }

  template <typename T>
  void operator()(std::string_view key, const T& value, const auto&... /*upload*/) {
    if constexpr (Optional<T> || std::is_same_v<T, std::shared_ptr<const OrvexError>>) {
      if (!value) {
        if constexpr (std::is_same_v<Form, DBusForm>) object_[std::string(key)] = nullptr;
        return;
      }
      put(key, encodeValue<Form>(*value));
    } else {
      put(key, encodeValue<Form>(value));
    }
  }
  void enumeration(std::string_view key, uint32_t value, FeedbackTable, const auto&... /*upload*/) {
    put(key, Node(value));
  }

  Node take() { return Node(std::move(object_)); }
  auto takeObject() { return std::move(object_); }

 private:
  void put(std::string_view key, Node value) {
    if constexpr (std::is_same_v<Form, DBusForm>) {
      object_[std::string(key)] = std::move(value);
    } else {
      object_.insert_or_assign(std::string(key), std::move(value));
    }
  }

  std::conditional_t<std::is_same_v<Form, DBusForm>, nlohmann::json, PlistDictionary> object_;
};

template <typename Form, typename T>
typename Form::Node encodeRecord(const T& record) {
  FieldWriter<Form> writer;
  std::size_t classIndex = 0;
  if constexpr (requires { record.recordClass; }) {
    classIndex = static_cast<std::size_t>(record.recordClass);
    if (classIndex >= T::kClassNames.size()) classIndex = 0;
  }
  writer("$class", std::string(T::kClassNames[classIndex]));
  T::visit(writer, record);
  return writer.take();
}

template <typename Form>
typename Form::Node encodeError(const OrvexError& error) {
  FieldWriter<Form> writer;
  writer("domain", error.domain);
  writer("code", error.code);
  writer("reason", error.reason);
  if (error.underlying) writer("underlying", *error.underlying);
  return writer.take();
}

template <typename Form>
typename Form::Node encodeValue(const auto& value) {
  using T = std::decay_t<decltype(value)>;
  using Node = typename Form::Node;
  if constexpr (std::is_same_v<T, std::string>) {
    if constexpr (std::is_same_v<Form, ArchiveForm>) return Node(archivableText(value));
    return Node(value);
  } else if constexpr (std::is_same_v<T, bool> || std::is_arithmetic_v<T>) {
    return Node(value);
  } else if constexpr (std::is_same_v<T, FeedbackStringMap>) {
    FieldWriter<Form> writer;
    for (const auto& [name, text] : value) {
      writer(std::is_same_v<Form, ArchiveForm> ? archivableText(name) : name, text);
    }
    return writer.take();
  } else if constexpr (std::is_same_v<T, PlistDictionary>) {
    if constexpr (std::is_same_v<Form, DBusForm>) {
      return plistToJson(PlistValue(value));
    } else {
      return Node(value);
    }
  } else if constexpr (std::is_same_v<T, nlohmann::json>) {
    if constexpr (std::is_same_v<Form, DBusForm>) return value;
    return Node(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if constexpr (std::is_same_v<T, OrvexError>) {
    return encodeError<Form>(value);
  } else if constexpr (Vector<T>) {
    std::conditional_t<std::is_same_v<Form, DBusForm>, nlohmann::json, PlistArray> array;
    if constexpr (std::is_same_v<Form, DBusForm>) array = nlohmann::json::array();
    for (const auto& element : value) array.push_back(encodeValue<Form>(element));
    return Node(std::move(array));
  } else {
    static_assert(NestedRecord<T>, "a field type the forms cannot hold");
    return encodeRecord<Form>(value);
  }
}

// The archive form straight into a binary property list, without building its dictionary:
// the same entries as FieldWriter<ArchiveForm> gives, handed to the writer as they are visited.
class ArchiveStreamWriter : public PassesOverUploadEntries {
 public:
  explicit ArchiveStreamWriter(BinaryPlistWriter& out) : out_(out) {}

  // Why the document cannot be written (a property-list value among the fields that no
  // document can hold); nothing when it can.
  const std::optional<std::string>& problem() const { return problem_; }

  template <typename T>
  void operator()(std::string_view key, const T& value, const auto&... /*upload*/) {
    if constexpr (Optional<T> || std::is_same_v<T, std::shared_ptr<const OrvexError>>) {
      if (!value) return;
      out_.key(key);
      write(*value);
    } else {
      out_.key(key);
      write(value);
    }
  }
  void enumeration(std::string_view key, uint32_t value, FeedbackTable, const auto&... /*upload*/) {
    out_.key(key);
    out_.integer(value);
  }

  template <typename T>
  void write(const T& value) {
    if constexpr (std::is_same_v<T, std::string>) {
      text(value);
    } else if constexpr (std::is_same_v<T, bool>) {
      out_.boolean(value);
    } else if constexpr (std::is_floating_point_v<T>) {
      out_.real(value);
    } else if constexpr (std::is_signed_v<T>) {
      out_.integer(value);
    } else if constexpr (std::is_unsigned_v<T>) {
      out_.unsignedInteger(value);
    } else if constexpr (std::is_same_v<T, FeedbackStringMap>) {
      out_.beginDictionary();
      for (const auto& [name, entry] : value) {
        keyText(name);
        text(entry);
      }
      out_.end();
    } else if constexpr (std::is_same_v<T, PlistDictionary>) {
      dictionary(value);
    } else if constexpr (std::is_same_v<T, nlohmann::json>) {
      text(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    } else if constexpr (std::is_same_v<T, OrvexError>) {
      out_.beginDictionary();
      (*this)("domain", value.domain);
      (*this)("code", value.code);
      (*this)("reason", value.reason);
      if (value.underlying) (*this)("underlying", *value.underlying);
      out_.end();
    } else if constexpr (Vector<T>) {
      out_.beginArray();
      for (const auto& element : value) write(element);
      out_.end();
    } else {
      static_assert(NestedRecord<T>, "a field type the forms cannot hold");
      std::size_t classIndex = 0;
      if constexpr (requires { value.recordClass; }) {
        classIndex = static_cast<std::size_t>(value.recordClass);
        if (classIndex >= T::kClassNames.size()) classIndex = 0;
      }
      out_.beginDictionary();
      out_.key("$class");
      text(T::kClassNames[classIndex]);
      T::visit(*this, value);
      out_.end();
    }
  }

 private:
  // Text as archivableText() gives it, copied only when it has to change.
  void text(std::string_view value);
  void keyText(std::string_view name);
  void dictionary(const PlistDictionary& value);

  BinaryPlistWriter& out_;
  std::optional<std::string> problem_;
};

// ---- Reading ------------------------------------------------------------------------------

// Where a read is and why it failed.
class DecodeContext {
 public:
  bool failed() const { return error_.has_value(); }
  const std::string& error() const { return *error_; }
  // Records the first failure, at the current path plus `key`.
  void fail(std::string_view key, std::string_view reason);

  void push(std::string component) { path_.push_back(std::move(component)); }
  void pop() { path_.pop_back(); }
  int depth() const { return static_cast<int>(path_.size()); }

 private:
  std::vector<std::string> path_;
  std::optional<std::string> error_;
};

// The node under `key` of a JSON object or property-list dictionary, or null.
const nlohmann::json* findField(const nlohmann::json& object, std::string_view key);
const PlistValue* findField(const PlistValue& object, std::string_view key);
inline bool isNullNode(const nlohmann::json& node) { return node.is_null(); }
inline bool isNullNode(const PlistValue&) { return false; }

// Scalar readers; each fails `context` at `key` and answers false on a mismatch.
bool decodeScalar(const nlohmann::json& node, bool& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const PlistValue& node, bool& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const nlohmann::json& node, int64_t& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const PlistValue& node, int64_t& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const nlohmann::json& node, uint64_t& out, DecodeContext& c,
                  std::string_view key);
bool decodeScalar(const PlistValue& node, uint64_t& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const nlohmann::json& node, double& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const PlistValue& node, double& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const nlohmann::json& node, std::string& out, DecodeContext& c,
                  std::string_view key);
bool decodeScalar(const PlistValue& node, std::string& out, DecodeContext& c, std::string_view key);
bool decodeScalar(const nlohmann::json& node, PlistDictionary& out, DecodeContext& c,
                  std::string_view key);
bool decodeScalar(const PlistValue& node, PlistDictionary& out, DecodeContext& c,
                  std::string_view key);
bool decodeScalar(const nlohmann::json& node, nlohmann::json& out, DecodeContext& c,
                  std::string_view key);
bool decodeScalar(const PlistValue& node, nlohmann::json& out, DecodeContext& c,
                  std::string_view key);

// The elements of an array node, or null when the node is no array.
const std::vector<nlohmann::json>* arrayElements(const nlohmann::json& node);
const PlistArray* arrayElements(const PlistValue& node);
bool isObjectNode(const nlohmann::json& node);
bool isObjectNode(const PlistValue& node);
// Calls `visit(name, node)` for every entry of an object node.
template <typename Visitor>
void forEachEntry(const nlohmann::json& node, Visitor&& visit) {
  for (const auto& [name, child] : node.items()) visit(name, child);
}
template <typename Visitor>
void forEachEntry(const PlistValue& node, Visitor&& visit) {
  for (const auto& [name, child] : *node.asDictionary()) visit(name, child);
}

template <typename Node>
bool decodeValue(const Node& node, auto& out, DecodeContext& context, std::string_view key);

template <typename Node>
class FieldReader : public PassesOverUploadEntries {
 public:
  FieldReader(const Node& object, DecodeContext& context) : object_(object), context_(context) {}

  template <typename T>
  void operator()(std::string_view key, T& value, const auto&... /*upload*/) {
    if (context_.failed()) return;
    const Node* node = findField(object_, key);
    if constexpr (Optional<T> || std::is_same_v<T, std::shared_ptr<const OrvexError>>) {
      if (node == nullptr || isNullNode(*node)) {
        value.reset();
        return;
      }
      if constexpr (Optional<T>) {
        typename T::value_type read{};
        if (decodeValue(*node, read, context_, key)) value = std::move(read);
      } else {
        OrvexError read;
        if (decodeValue(*node, read, context_, key)) {
          value = std::make_shared<const OrvexError>(std::move(read));
        }
      }
    } else {
      if (node == nullptr || isNullNode(*node)) {
        context_.fail(key, "missing");
        return;
      }
      decodeValue(*node, value, context_, key);
    }
  }

  void enumeration(std::string_view key, uint32_t& value, FeedbackTable table,
                   const auto&... /*upload*/) {
    uint64_t read = 0;
    (*this)(key, read);
    if (context_.failed()) return;
    if (!table.contains(read)) {
      context_.fail(key, std::to_string(read) + " is outside its table of " +
                             std::to_string(table.size()) + " names");
      return;
    }
    value = static_cast<uint32_t>(read);
  }

 private:
  const Node& object_;
  DecodeContext& context_;
};

template <typename Node, typename T>
bool decodeRecord(const Node& node, T& out, DecodeContext& context, std::string_view key) {
  if (!isObjectNode(node)) {
    context.fail(key, "not an object");
    return false;
  }
  if (context.depth() >= kMaxNestedDepth) {
    context.fail(key, "nested too deeply");
    return false;
  }
  context.push(std::string(key));
  const Node* name = findField(node, "$class");
  if constexpr (NestedRecord<T>) {
    if (name != nullptr && !isNullNode(*name)) {
      std::string className;
      if (decodeScalar(*name, className, context, "$class")) {
        bool known = false;
        for (std::size_t i = 0; i < T::kClassNames.size(); ++i) {
          if (T::kClassNames[i] != className) continue;
          known = true;
          if constexpr (requires { out.recordClass; }) {
            out.recordClass = static_cast<decltype(out.recordClass)>(i);
          }
        }
        if (!known) context.fail("$class", "\"" + className + "\" does not belong here");
      }
    }
  }
  FieldReader<Node> reader(node, context);
  if constexpr (std::is_same_v<T, OrvexError>) {
    reader("domain", out.domain);
    reader("code", out.code);
    reader("reason", out.reason);
    reader("underlying", out.underlying);
  } else {
    T::visit(reader, out);
  }
  context.pop();
  return !context.failed();
}

template <typename Node>
bool decodeValue(const Node& node, auto& out, DecodeContext& context, std::string_view key) {
  using T = std::decay_t<decltype(out)>;
  if constexpr (std::is_same_v<T, uint32_t> || std::is_same_v<T, int32_t>) {
    using Wide = std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>;
    Wide wide = 0;
    if (!decodeScalar(node, wide, context, key)) return false;
    if (!std::in_range<T>(wide)) {
      context.fail(key, "out of range");
      return false;
    }
    out = static_cast<T>(wide);
    return true;
  } else if constexpr (std::is_same_v<T, FeedbackStringMap>) {
    if (!isObjectNode(node)) {
      context.fail(key, "not an object");
      return false;
    }
    context.push(std::string(key));
    forEachEntry(node, [&](const std::string& name, const Node& child) {
      if (context.failed()) return;
      std::string text;
      if (name.find('\0') != std::string::npos) {
        context.fail(name, "a name holding NUL");
      } else if (decodeScalar(child, text, context, name)) {
        out.emplace(name, std::move(text));
      }
    });
    context.pop();
    return !context.failed();
  } else if constexpr (Vector<T>) {
    const auto* elements = arrayElements(node);
    if (elements == nullptr) {
      context.fail(key, "not an array");
      return false;
    }
    out.reserve(elements->size());
    for (std::size_t i = 0; i < elements->size(); ++i) {
      typename T::value_type element{};
      if (!decodeValue((*elements)[i], element, context,
                       std::string(key) + "[" + std::to_string(i) + "]")) {
        return false;
      }
      out.push_back(std::move(element));
    }
    return true;
  } else if constexpr (NestedRecord<T> || std::is_same_v<T, OrvexError>) {
    return decodeRecord(node, out, context, key);
  } else {
    return decodeScalar(node, out, context, key);
  }
}

}  // namespace feedback_codec
}  // namespace orvex
