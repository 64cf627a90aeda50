#include "orvexd/model/feedback_codec.h"

#include "orvexd/base/text_util.h"

namespace orvex::feedback_codec {
namespace {

constexpr std::string_view kDataMarker = "$data";

bool failWith(DecodeContext& context, std::string_view key, std::string_view reason) {
  context.fail(key, reason);
  return false;
}

bool checkText(const std::string& text, DecodeContext& context, std::string_view key) {
  if (text.find('\0') != std::string::npos) return failWith(context, key, "text holding NUL");
  return true;
}

// A property-list integer as a T, when it holds one.
template <typename T>
bool decodePlistInteger(const PlistValue& node, T& out, DecodeContext& context,
                        std::string_view key) {
  if (node.type() != PlistType::kInteger) return failWith(context, key, "not an integer");
  std::optional<T> value;
  if constexpr (std::is_signed_v<T>) {
    value = node.asInteger();
  } else {
    value = node.asUnsignedInteger();
  }
  if (!value) return failWith(context, key, "out of range");
  out = *value;
  return true;
}

bool checkFinite(double value, DecodeContext& context, std::string_view key) {
  if (!std::isfinite(value)) return failWith(context, key, "a number that is not finite");
  return true;
}

std::optional<PlistValue> jsonToPlistAt(const nlohmann::json& json, std::string& error, int depth) {
  if (depth > kMaxJsonDepth) {
    error = "nested too deeply";
    return std::nullopt;
  }
  switch (json.type()) {
    case nlohmann::json::value_t::boolean:
      return PlistValue(json.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return PlistValue(json.get<int64_t>());
    case nlohmann::json::value_t::number_unsigned:
      return PlistValue(json.get<uint64_t>());
    case nlohmann::json::value_t::number_float: {
      const double value = json.get<double>();
      if (!std::isfinite(value)) {
        error = "a number that is not finite";
        return std::nullopt;
      }
      return PlistValue(value);
    }
    case nlohmann::json::value_t::string: {
      const auto& text = json.get_ref<const std::string&>();
      if (text.find('\0') != std::string::npos) {
        error = "text holding NUL";
        return std::nullopt;
      }
      return PlistValue(text);
    }
    case nlohmann::json::value_t::array: {
      PlistArray array;
      array.reserve(json.size());
      for (const auto& element : json) {
        auto converted = jsonToPlistAt(element, error, depth + 1);
        if (!converted) return std::nullopt;
        array.push_back(std::move(*converted));
      }
      return PlistValue(std::move(array));
    }
    case nlohmann::json::value_t::object: {
      if (json.size() == 1 && json.contains(kDataMarker)) {
        const auto& encoded = json.at(kDataMarker);
        std::optional<std::vector<uint8_t>> bytes;
        if (encoded.is_string()) bytes = decodeBase64(encoded.get_ref<const std::string&>());
        if (!bytes) {
          error = "bytes that are not base64";
          return std::nullopt;
        }
        return PlistValue(std::move(*bytes));
      }
      PlistDictionary dictionary;
      for (const auto& [name, child] : json.items()) {
        if (name.find('\0') != std::string::npos) {
          error = "a name holding NUL";
          return std::nullopt;
        }
        auto converted = jsonToPlistAt(child, error, depth + 1);
        if (!converted) return std::nullopt;
        dictionary.emplace(name, std::move(*converted));
      }
      return PlistValue(std::move(dictionary));
    }
    default:
      error = "null or a value that timing data cannot hold";
      return std::nullopt;
  }
}

}  // namespace

std::string archivableText(std::string_view text) {
  if (isValidUtf8(text) && text.find('\0') == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t length = utf8SequenceLength(text, i);
    if (length == 0 || text[i] == '\0') {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text.substr(i, length));
      i += length;
    }
  }
  return out;
}

void ArchiveStreamWriter::text(std::string_view value) {
  if (isValidUtf8(value) && value.find('\0') == std::string_view::npos) {
    out_.string(value);
  } else {
    out_.string(archivableText(value));
  }
}

void ArchiveStreamWriter::keyText(std::string_view name) {
  if (isValidUtf8(name) && name.find('\0') == std::string_view::npos) {
    out_.key(name);
  } else {
    out_.key(archivableText(name));
  }
}

void ArchiveStreamWriter::dictionary(const PlistDictionary& value) {
  // Free-form values are checked as a whole document would be; they are rare and small.
  const PlistValue copy(value);
  std::string why;
  if (!copy.isWritable(&why) && !problem_) problem_ = why;
  out_.value(copy);
}

std::optional<std::string> freeJsonProblem(const nlohmann::json& json, int limit) {
  if (json.is_number_float() && !std::isfinite(json.get<double>())) {
    return "a number that is not finite";
  }
  if (!json.is_structured()) return std::nullopt;
  if (limit <= 0) return "nested too deeply";
  for (const auto& child : json) {
    if (auto problem = freeJsonProblem(child, limit - 1)) return problem;
  }
  return std::nullopt;
}

nlohmann::json plistToJson(const PlistValue& value) {
  return value.visit([](const auto& stored) -> nlohmann::json {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, PlistData>) {
      return nlohmann::json{{kDataMarker, encodeBase64(stored)}};
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      return stored.iso8601();
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      nlohmann::json array = nlohmann::json::array();
      for (const auto& element : stored) array.push_back(plistToJson(element));
      return array;
    } else if constexpr (std::is_same_v<T, PlistDictionary>) {
      nlohmann::json object = nlohmann::json::object();
      for (const auto& [name, child] : stored) object[name] = plistToJson(child);
      return object;
    } else {
      return stored;
    }
  });
}

std::optional<PlistValue> jsonToPlist(const nlohmann::json& json, std::string& error) {
  return jsonToPlistAt(json, error, 0);
}

bool plistIsPortable(const PlistValue& value, std::string& error) {
  switch (value.type()) {
    case PlistType::kDate:
      error = "a date, which timing data cannot hold";
      return false;
    case PlistType::kReal:
      if (!std::isfinite(*value.asDouble())) {
        error = "a number that is not finite";
        return false;
      }
      return true;
    case PlistType::kArray:
      for (const auto& element : *value.asArray()) {
        if (!plistIsPortable(element, error)) return false;
      }
      return true;
    case PlistType::kDictionary:
      for (const auto& [name, child] : *value.asDictionary()) {
        if (!plistIsPortable(child, error)) return false;
      }
      return true;
    default:
      // The property-list reader only makes UTF-8 strings without NUL.
      return true;
  }
}

void DecodeContext::fail(std::string_view key, std::string_view reason) {
  if (error_) return;
  std::string where;
  for (const auto& component : path_) {
    where += component;
    where += '.';
  }
  where += key;
  error_ = where + ": " + std::string(reason);
}

const nlohmann::json* findField(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

const PlistValue* findField(const PlistValue& object, std::string_view key) {
  return object.find(key);
}

const std::vector<nlohmann::json>* arrayElements(const nlohmann::json& node) {
  return node.is_array() ? &node.get_ref<const nlohmann::json::array_t&>() : nullptr;
}
const PlistArray* arrayElements(const PlistValue& node) { return node.asArray(); }
bool isObjectNode(const nlohmann::json& node) { return node.is_object(); }
bool isObjectNode(const PlistValue& node) { return node.asDictionary() != nullptr; }

bool decodeScalar(const nlohmann::json& node, bool& out, DecodeContext& c, std::string_view key) {
  if (!node.is_boolean()) return failWith(c, key, "not a boolean");
  out = node.get<bool>();
  return true;
}

bool decodeScalar(const PlistValue& node, bool& out, DecodeContext& c, std::string_view key) {
  if (node.type() != PlistType::kBoolean) return failWith(c, key, "not a boolean");
  out = *node.asBool();
  return true;
}

bool decodeScalar(const nlohmann::json& node, int64_t& out, DecodeContext& c,
                  std::string_view key) {
  if (node.is_number_integer() && !node.is_number_unsigned()) {
    out = node.get<int64_t>();
    return true;
  }
  if (node.is_number_unsigned() && std::in_range<int64_t>(node.get<uint64_t>())) {
    out = static_cast<int64_t>(node.get<uint64_t>());
    return true;
  }
  return failWith(c, key, node.is_number_unsigned() ? "out of range" : "not an integer");
}

bool decodeScalar(const PlistValue& node, int64_t& out, DecodeContext& c, std::string_view key) {
  return decodePlistInteger(node, out, c, key);
}

bool decodeScalar(const nlohmann::json& node, uint64_t& out, DecodeContext& c,
                  std::string_view key) {
  if (node.is_number_unsigned()) {
    out = node.get<uint64_t>();
    return true;
  }
  return failWith(c, key, node.is_number_integer() ? "out of range" : "not an integer");
}

bool decodeScalar(const PlistValue& node, uint64_t& out, DecodeContext& c, std::string_view key) {
  return decodePlistInteger(node, out, c, key);
}

bool decodeScalar(const nlohmann::json& node, double& out, DecodeContext& c, std::string_view key) {
  if (!node.is_number()) return failWith(c, key, "not a number");
  out = node.get<double>();
  return checkFinite(out, c, key);
}

bool decodeScalar(const PlistValue& node, double& out, DecodeContext& c, std::string_view key) {
  if (node.type() != PlistType::kReal && node.type() != PlistType::kInteger) {
    return failWith(c, key, "not a number");
  }
  out = *node.asDouble();
  return checkFinite(out, c, key);
}

bool decodeScalar(const nlohmann::json& node, std::string& out, DecodeContext& c,
                  std::string_view key) {
  if (!node.is_string()) return failWith(c, key, "not a string");
  out = node.get<std::string>();
  return checkText(out, c, key);
}

bool decodeScalar(const PlistValue& node, std::string& out, DecodeContext& c,
                  std::string_view key) {
  const std::string* text = node.asString();
  if (text == nullptr) return failWith(c, key, "not a string");
  out = *text;
  return checkText(out, c, key);
}

bool decodeScalar(const nlohmann::json& node, PlistDictionary& out, DecodeContext& c,
                  std::string_view key) {
  if (!node.is_object()) return failWith(c, key, "not an object");
  std::string error;
  auto converted = jsonToPlist(node, error);
  if (!converted) return failWith(c, key, error);
  out = std::move(*converted->asDictionary());
  return true;
}

bool decodeScalar(const PlistValue& node, PlistDictionary& out, DecodeContext& c,
                  std::string_view key) {
  if (node.asDictionary() == nullptr) return failWith(c, key, "not a dictionary");
  std::string error;
  if (!plistIsPortable(node, error)) return failWith(c, key, error);
  out = *node.asDictionary();
  return true;
}

bool decodeScalar(const nlohmann::json& node, nlohmann::json& out, DecodeContext& c,
                  std::string_view key) {
  if (auto problem = freeJsonProblem(node, kMaxJsonDepth)) return failWith(c, key, *problem);
  out = node;
  return true;
}

bool decodeScalar(const PlistValue& node, nlohmann::json& out, DecodeContext& c,
                  std::string_view key) {
  const std::string* text = node.asString();
  if (text == nullptr) return failWith(c, key, "not JSON text");
  auto parsed = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return failWith(c, key, "not JSON text");
  if (auto problem = freeJsonProblem(parsed, kMaxJsonDepth)) return failWith(c, key, *problem);
  out = std::move(parsed);
  return true;
}

}  // namespace orvex::feedback_codec
