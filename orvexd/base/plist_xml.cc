#include "orvexd/base/plist_xml.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <type_traits>
#include <utility>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/log_format.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

using XmlParser = CHandle<std::remove_pointer_t<XML_Parser>, &XML_ParserFree>;

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimXmlSpace(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

// ---- Writing -------------------------------------------------------------------------------

void appendXmlEscaped(std::string_view text, std::string& out) {
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        // Carriage returns and other control characters as references, so that XML line-end
        // normalisation cannot change them.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') {
          out += "&#" + std::to_string(static_cast<int>(c)) + ';';
        } else {
          out += c;
        }
    }
  }
}

// One line still to write: a value (after its key, inside a dictionary) or a closing tag.
struct XmlLine {
  const PlistValue* value = nullptr;
  const std::string* key = nullptr;
  std::string_view closingTag;
  int indent = 0;
};

// Writes `root` line by line from a stack, so that deep values take no stack of the thread.
void writeXmlValue(const PlistValue& root, std::string& out) {
  std::vector<XmlLine> pending{{&root, nullptr, {}, 0}};
  while (!pending.empty()) {
    const XmlLine line = pending.back();
    pending.pop_back();
    const auto indent = [&](int level) { out.append(static_cast<std::size_t>(level), '\t'); };
    if (line.value == nullptr) {
      indent(line.indent);
      out += line.closingTag;
      out += '\n';
      continue;
    }
    if (line.key != nullptr) {
      indent(line.indent);
      out += "<key>";
      appendXmlEscaped(*line.key, out);
      out += "</key>\n";
    }
    indent(line.indent);
    line.value->visit([&](const auto& stored) {
      using T = std::decay_t<decltype(stored)>;
      if constexpr (std::is_same_v<T, bool>) {
        out += stored ? "<true/>" : "<false/>";
      } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
        out += "<integer>" + std::to_string(stored) + "</integer>";
      } else if constexpr (std::is_same_v<T, double>) {
        out += "<real>" + formatPlistReal(stored) + "</real>";
      } else if constexpr (std::is_same_v<T, std::string>) {
        out += "<string>";
        appendXmlEscaped(stored, out);
        out += "</string>";
      } else if constexpr (std::is_same_v<T, PlistDate>) {
        out += "<date>" + stored.iso8601() + "</date>";
      } else if constexpr (std::is_same_v<T, PlistData>) {
        out += "<data>" + encodeBase64(stored) + "</data>";
      } else {
        constexpr bool kArray = std::is_same_v<T, PlistArray>;
        if (stored.empty()) {
          out += kArray ? "<array/>" : "<dict/>";
          return;
        }
        out += kArray ? "<array>" : "<dict>";
        pending.push_back({nullptr, nullptr, kArray ? "</array>" : "</dict>", line.indent});
        // Pushed last to first, so that they come off the stack in order.
        for (auto element = stored.rbegin(); element != stored.rend(); ++element) {
          if constexpr (kArray) {
            pending.push_back({&*element, nullptr, {}, line.indent + 1});
          } else {
            pending.push_back({&element->second, &element->first, {}, line.indent + 1});
          }
        }
      }
    });
    out += '\n';
  }
}

// ---- Reading -------------------------------------------------------------------------------
//
// XML 1.0 has no place for the control characters U+0001-U+001F other than tab, line feed and
// carriage return, nor for the noncharacters U+FFFE and U+FFFF, neither raw nor as references,
// and expat refuses them. Property lists hold them all the same: libplist writes them raw, the
// writer above control characters as references. So before expat sees a document that has any,
// each is replaced by a stand-in, the private-use character U+F0000 plus its code (the control
// character's own, kNonCharacterCode plus 0 or 1 for U+FFFE and U+FFFF); a private-use character
// of that range that is in the document already is kept behind the stand-in of code 0. The text
// of leaves is turned back afterwards. Line ends are not touched, so expat counts the same lines.

constexpr std::string_view kStandInPrefix = "\xF3\xB0\x80";  // U+F0000-U+F003F in UTF-8
constexpr unsigned kNonCharacterCode = 0x20;
constexpr std::string_view kNonCharacters[] = {"\xEF\xBF\xBE", "\xEF\xBF\xBF"};  // U+FFFE, U+FFFF

bool isControlCharacter(std::uint32_t c) {
  return c >= 1 && c < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

// Whether text[at] starts a private-use character U+F0000-U+F0021: the ones that need escaping.
bool isStandIn(std::string_view text, std::size_t at) {
  return text.substr(at).starts_with(kStandInPrefix) && at + 3 < text.size() &&
         static_cast<unsigned char>(text[at + 3]) >= 0x80 &&
         static_cast<unsigned char>(text[at + 3]) < 0x80 + kNonCharacterCode + 2;
}

// 0 or 1 when text[at] starts U+FFFE or U+FFFF, else -1.
int nonCharacterAt(std::string_view text, std::size_t at) {
  for (int which = 0; which < 2; ++which) {
    if (text.substr(at).starts_with(kNonCharacters[which])) return which;
  }
  return -1;
}

void appendStandIn(unsigned code, std::string& out) {
  out += kStandInPrefix;
  out += static_cast<char>(0x80 + code);
}

// The document with stand-ins for control characters (see above), or nothing when it has none.
std::optional<std::string> escapeControlCharacters(std::string_view text) {
  const bool needed = text.find("&#") != std::string_view::npos ||
                      text.find(kStandInPrefix) != std::string_view::npos ||
                      text.find(kNonCharacters[0]) != std::string_view::npos ||
                      text.find(kNonCharacters[1]) != std::string_view::npos ||
                      std::any_of(text.begin(), text.end(), [](char c) {
                        return isControlCharacter(static_cast<unsigned char>(c));
                      });
  if (!needed) return std::nullopt;
  static constexpr std::pair<std::string_view, std::string_view> kVerbatim[] = {
      {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};
  std::string out;
  out.reserve(text.size() + 64);
  std::string_view verbatimEnd;  // inside a comment, CDATA section or processing instruction
  std::size_t i = 0;
  const auto copy = [&](std::size_t length) {
    out.append(text.substr(i, length));
    i += length;
  };
  while (i < text.size()) {
    const std::string_view rest = text.substr(i);
    if (!verbatimEnd.empty()) {
      if (rest.starts_with(verbatimEnd)) {
        copy(verbatimEnd.size());
        verbatimEnd = {};
        continue;
      }
    } else if (rest.starts_with('<')) {
      const auto* opened =
          std::find_if(std::begin(kVerbatim), std::end(kVerbatim),
                       [&](const auto& pair) { return rest.starts_with(pair.first); });
      if (opened != std::end(kVerbatim)) {
        copy(opened->first.size());
        verbatimEnd = opened->second;
        continue;
      }
    } else if (rest.starts_with("&#")) {
      // A character reference to a control character or to a private-use one of the range.
      const bool hex = rest.starts_with("&#x");
      const std::size_t digits = hex ? 3 : 2;
      const std::size_t end = rest.find(';');
      std::uint32_t code = 0;
      if (end != std::string_view::npos && end > digits && end < 16) {
        const auto result =
            std::from_chars(rest.data() + digits, rest.data() + end, code, hex ? 16 : 10);
        if (result.ec == std::errc{} && result.ptr == rest.data() + end) {
          if (isControlCharacter(code)) {
            appendStandIn(code, out);
            i += end + 1;
            continue;
          }
          if (code == 0xFFFE || code == 0xFFFF) {
            appendStandIn(kNonCharacterCode + (code - 0xFFFE), out);
            i += end + 1;
            continue;
          }
          if (code >= 0xF0000 && code < 0xF0000 + kNonCharacterCode + 2) {
            appendStandIn(0, out);
            appendStandIn(code - 0xF0000, out);
            i += end + 1;
            continue;
          }
        }
      }
    }
    if (isControlCharacter(static_cast<unsigned char>(rest.front()))) {
      appendStandIn(static_cast<unsigned char>(rest.front()), out);
      ++i;
    } else if (const int which = nonCharacterAt(text, i); which >= 0) {
      appendStandIn(kNonCharacterCode + static_cast<unsigned>(which), out);
      i += kNonCharacters[which].size();
    } else if (isStandIn(text, i)) {
      appendStandIn(0, out);
      copy(4);
    } else {
      copy(1);
    }
  }
  return out;
}

// Text read from a document escaped by escapeControlCharacters(), as it was.
std::string restoreControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    if (!isStandIn(text, i)) {
      out += text[i++];
      continue;
    }
    const unsigned code = static_cast<unsigned char>(text[i + 3]) - 0x80;
    if (code >= kNonCharacterCode) {
      out += kNonCharacters[code - kNonCharacterCode];
      i += 4;
    } else if (code != 0) {
      out += static_cast<char>(code);
      i += 4;
    } else {
      out.append(text.substr(i + 4, 4));  // the private-use character itself
      i += 8;
    }
  }
  return out;
}

// Reads the XML dialect of property lists from expat's events. The containers it is inside are
// kept on a stack (frames_), the element holding text (a leaf) apart.
class XmlPlistReader {
 public:
  explicit XmlPlistReader(std::string_view text) : escaped_(escapeControlCharacters(text)) {
    text_ = escaped_ ? std::string_view(*escaped_) : text;
  }

  std::optional<PlistValue> read(std::string& why) {
    const XmlParser parser(XML_ParserCreate("UTF-8"));  // whatever the declaration says
    if (parser == nullptr) {
      why = "XML property list: expat could not start";
      return std::nullopt;
    }
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, &XmlPlistReader::onStart, &XmlPlistReader::onEnd);
    XML_SetCharacterDataHandler(parser_, &XmlPlistReader::onText);
    XML_SetEntityDeclHandler(parser_, &XmlPlistReader::onEntityDeclaration);
    XML_SetSkippedEntityHandler(parser_, &XmlPlistReader::onSkippedEntity);
    XML_SetParamEntityParsing(parser_, XML_PARAM_ENTITY_PARSING_NEVER);
    // XML_Parse takes an int length, so large documents go in pieces.
    constexpr std::size_t kPiece = std::size_t{1} << 30;
    std::size_t offset = 0;
    do {
      const std::size_t length = std::min(kPiece, text_.size() - offset);
      const bool last = offset + length == text_.size();
      if (XML_Parse(parser_, text_.data() + offset, static_cast<int>(length), last) !=
          XML_STATUS_OK) {
        if (outOfMemory_) {
          why = "XML property list: the document does not fit in memory";
          return std::nullopt;
        }
        describeExpatError();
        break;
      }
      offset += length;
    } while (offset < text_.size());
    if (why_.empty() && !result_) fail("the document ends too early");
    if (!why_.empty()) {
      why = why_;
      return std::nullopt;
    }
    return std::move(result_);
  }

 private:
  enum class Container { kPlist, kArray, kDictionary };
  struct Frame {
    explicit Frame(Container kind)
        : kind(kind), value(kind == Container::kArray ? PlistValue(PlistArray{}) : PlistValue()) {}

    Container kind;
    PlistValue value;                // the array or dictionary so far; of <plist>, its value
    bool full = false;               // <plist>: its value has been read
    std::optional<std::string> key;  // dictionaries: a key waiting for its value
  };

  // expat is C: no exception may pass through it, and after a failure nothing more is read.
  template <typename Step>
  static void guarded(void* data, Step&& step) {
    auto* reader = static_cast<XmlPlistReader*>(data);
    if (!reader->why_.empty() || reader->outOfMemory_) return;
    try {
      step(*reader);
    } catch (...) {
      reader->outOfMemory_ = true;
      XML_StopParser(reader->parser_, XML_FALSE);
    }
  }
  static void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char** /*attributes*/) {
    guarded(data, [&](XmlPlistReader& reader) { reader.start(name); });
  }
  static void XMLCALL onEnd(void* data, const XML_Char* /*name*/) {
    guarded(data, [](XmlPlistReader& reader) { reader.end(); });
  }
  static void XMLCALL onText(void* data, const XML_Char* text, int length) {
    guarded(data, [&](XmlPlistReader& reader) {
      reader.characters(std::string_view(text, static_cast<std::size_t>(length)));
    });
  }
  // Entities are refused where they are declared, before anything could expand them.
  static void XMLCALL onEntityDeclaration(void* data, const XML_Char* name, int parameter,
                                          const XML_Char*, int, const XML_Char*, const XML_Char*,
                                          const XML_Char*, const XML_Char*) {
    guarded(data, [&](XmlPlistReader& reader) {
      reader.fail(formatLog("the document declares the entity %s%s; and entities are refused",
                            parameter ? "%" : "&", name));
    });
  }
  // A reference to an entity nobody declared, in a document with an external DTD (not read).
  static void XMLCALL onSkippedEntity(void* data, const XML_Char* name, int parameter) {
    guarded(data, [&](XmlPlistReader& reader) {
      reader.fail((parameter ? "%" : "&") + std::string(name) + "; is not a known entity");
    });
  }

  std::string_view openElement() const {
    if (!leaf_.empty()) return leaf_;
    if (frames_.empty()) return "plist";
    switch (frames_.back().kind) {
      case Container::kArray:
        return "array";
      case Container::kDictionary:
        return "dict";
      default:
        return "plist";
    }
  }

  void start(std::string_view name) {
    if (frames_.empty()) {
      if (name != "plist") {
        fail("the document does not start with <plist>");
      } else {
        frames_.emplace_back(Container::kPlist);
      }
      return;
    }
    const std::string element(name);
    if (!leaf_.empty()) {
      fail("<" + element + "> stands inside <" + std::string(leaf_) + ">");
      return;
    }
    Frame& top = frames_.back();
    if (top.kind == Container::kPlist && top.full) {
      fail("<plist> holds more than one value");
      return;
    }
    if (top.kind == Container::kDictionary && !top.key) {
      if (name != "key") {
        fail("<" + element + "> stands where a dictionary key belongs");
        return;
      }
    } else if (name == "key") {
      fail(top.kind == Container::kDictionary ? "the key \"" + *top.key + "\" has no value"
                                              : "<key> stands outside a dictionary");
      return;
    }
    if (name == "array" || name == "dict") {
      // The frame of <plist> is no container.
      if (frames_.size() > static_cast<std::size_t>(kPlistMaxDepth)) {
        fail("the containers are nested too deeply");
        return;
      }
      frames_.emplace_back(name == "array" ? Container::kArray : Container::kDictionary);
      return;
    }
    static constexpr std::array<std::string_view, 8> kLeaves = {
        "key", "true", "false", "string", "integer", "real", "date", "data"};
    const auto leaf = std::find(kLeaves.begin(), kLeaves.end(), name);
    if (leaf == kLeaves.end()) {
      fail("<" + element + "> is not a property list element");
      return;
    }
    leaf_ = *leaf;
    content_.clear();
  }

  void characters(std::string_view characters) {
    if (!leaf_.empty()) {
      content_ += characters;
    } else if (!trimXmlSpace(characters).empty()) {
      fail("there is text where an element belongs");
    }
  }

  void end() {
    if (!leaf_.empty()) {
      const std::string_view leaf = std::exchange(leaf_, {});
      if (escaped_) content_ = restoreControlCharacters(content_);
      if (leaf == "key") {
        if (!isValidUtf8(content_)) {
          fail("a <key> is not valid UTF-8");
        } else {
          frames_.back().key = std::move(content_);
        }
      } else if (auto value = leafValue(leaf)) {
        add(std::move(*value));
      }
      return;
    }
    Frame frame = std::move(frames_.back());
    frames_.pop_back();
    if (frame.kind == Container::kPlist) {
      if (!frame.full) {
        fail("<plist> holds no value");
      } else {
        result_ = std::move(frame.value);
      }
    } else if (frame.key) {
      fail("the key \"" + *frame.key + "\" has no value");
    } else {
      add(std::move(frame.value));
    }
  }

  void add(PlistValue value) {
    Frame& top = frames_.back();
    if (top.kind == Container::kPlist) {
      top.value = std::move(value);
      top.full = true;
    } else if (top.kind == Container::kArray) {
      top.value.asArray()->push_back(std::move(value));
    } else {
      std::string key = std::move(*top.key);
      top.key.reset();
      PlistDictionary& dictionary = *top.value.asDictionary();
      if (dictionary.contains(key)) {
        fail("a dictionary holds the key \"" + key + "\" twice");
      } else {
        dictionary.emplace(std::move(key), std::move(value));
      }
    }
  }

  std::optional<PlistValue> leafValue(std::string_view name) {
    const std::string_view trimmed = trimXmlSpace(content_);
    if (name == "true" || name == "false") {
      if (!trimmed.empty()) {
        fail("<" + std::string(name) + "> holds text");
        return std::nullopt;
      }
      return PlistValue(name == "true");
    }
    if (name == "string") {
      if (!isValidUtf8(content_)) {
        fail("a <string> is not valid UTF-8");
        return std::nullopt;
      }
      return PlistValue(std::move(content_));
    }
    if (name == "integer") return parseInteger(trimmed);
    if (name == "real") return parseReal(trimmed);
    if (name == "date") {
      auto date = PlistDate::fromIso8601(trimmed);
      if (!date) {
        fail("<date> holds \"" + content_ + "\", which is not a supported date");
        return std::nullopt;
      }
      return PlistValue(*date);
    }
    auto data = decodeBase64(content_);
    if (!data) {
      fail("<data> does not hold valid base64");
      return std::nullopt;
    }
    return PlistValue(std::move(*data));
  }

  std::optional<PlistValue> parseInteger(std::string_view text) {
    std::string_view digits = text;
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) digits.remove_prefix(1);
    int base = 10;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
      base = 16;
      digits.remove_prefix(2);
    }
    std::uint64_t magnitude = 0;
    const auto result =
        std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
    const bool valid =
        !digits.empty() && result.ec == std::errc{} && result.ptr == digits.data() + digits.size();
    const std::uint64_t negativeLimit =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
    if (!valid || (negative && magnitude > negativeLimit)) {
      fail("<integer> holds \"" + std::string(text) + "\", which is not a 64-bit integer");
      return std::nullopt;
    }
    if (negative) return PlistValue(static_cast<std::int64_t>(0 - magnitude));
    return PlistValue(magnitude);
  }

  std::optional<PlistValue> parseReal(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "nan") return PlistValue(std::numeric_limits<double>::quiet_NaN());
    if (lower == "inf" || lower == "+inf" || lower == "infinity" || lower == "+infinity") {
      return PlistValue(std::numeric_limits<double>::infinity());
    }
    if (lower == "-inf" || lower == "-infinity") {
      return PlistValue(-std::numeric_limits<double>::infinity());
    }
    std::string_view number = text;
    if (number.starts_with('+')) number.remove_prefix(1);
    double value = 0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    if (number.empty() || result.ec != std::errc{} || result.ptr != number.data() + number.size()) {
      fail("<real> holds \"" + std::string(text) + "\", which is not a number");
      return std::nullopt;
    }
    return PlistValue(value);
  }

  // Tells what expat found malformed in the words used for the other failures.
  void describeExpatError() {
    if (!why_.empty()) return;  // a handler stopped the parser
    const XML_Error code = XML_GetErrorCode(parser_);
    const XML_Index index = XML_GetCurrentByteIndex(parser_);
    const std::size_t position =
        index < 0 ? text_.size() : std::min(static_cast<std::size_t>(index), text_.size());
    const std::string_view at = text_.substr(position);
    const auto nameAt = [](std::string_view text) {
      std::size_t length = 0;
      while (length < text.size() && !isXmlSpace(text[length]) &&
             std::string_view("<>/=\"'").find(text[length]) == std::string_view::npos) {
        ++length;
      }
      return std::string(text.substr(0, length));
    };
    // A reference: from '&' to ';' when that is near.
    const auto referenceAt = [](std::string_view text) -> std::optional<std::string> {
      const std::size_t end = text.find(';');
      if (!text.starts_with('&') || end == std::string_view::npos || end > 12) return std::nullopt;
      return std::string(text.substr(0, end + 1));
    };
    switch (code) {
      case XML_ERROR_NO_ELEMENTS:
        if (frames_.empty()) {
          fail("the document ends too early");
        } else {
          fail("<" + std::string(openElement()) + "> is not closed");
        }
        return;
      case XML_ERROR_UNCLOSED_TOKEN:
        if (at.starts_with("<!--")) {
          fail("a comment is not closed");
        } else if (at.starts_with("<?")) {
          fail("a processing instruction is not closed");
        } else if (at.starts_with("<!DOCTYPE")) {
          fail("the document type declaration is not closed");
        } else if (at.starts_with('<') && !nameAt(at.substr(1)).empty()) {
          fail("the tag <" + nameAt(at.substr(1)) + "> is not closed");
        } else {
          break;
        }
        return;
      case XML_ERROR_UNCLOSED_CDATA_SECTION:
        fail("a CDATA section is not closed");
        return;
      case XML_ERROR_TAG_MISMATCH:
        fail("<" + std::string(openElement()) + "> is closed by </" + nameAt(at) + ">");
        return;
      case XML_ERROR_JUNK_AFTER_DOC_ELEMENT:
        fail("there is content after </plist>");
        return;
      case XML_ERROR_UNDEFINED_ENTITY:
        if (const auto reference = referenceAt(at)) {
          fail(*reference + " is not a known entity");
          return;
        }
        break;
      case XML_ERROR_BAD_CHAR_REF:
        if (const auto reference = referenceAt(at)) {
          fail(*reference + " is not a valid character reference");
          return;
        }
        break;
      case XML_ERROR_SYNTAX:
        if (!at.empty() && at.front() != '<') {
          fail("there is text where an element belongs");
          return;
        }
        break;
      case XML_ERROR_INVALID_TOKEN: {
        // expat points at the byte it could not take, which may follow the '&' it began with.
        const std::size_t ampersand = text_.rfind('&', position);
        if (!at.empty() && at.front() == '\0') {
          fail("<" + std::string(openElement()) + "> holds a NUL character");
        } else if (!at.empty() && utf8SequenceLength(at, 0) == 0) {
          fail(leaf_ == "string" || leaf_ == "key"
                   ? "a <" + std::string(leaf_) + "> is not valid UTF-8"
                   : std::string("the document is not valid UTF-8"));
        } else if (ampersand != std::string_view::npos && position - ampersand <= 12 &&
                   text_.substr(ampersand, position - ampersand).find_first_of(";<>") ==
                       std::string_view::npos) {
          const auto reference = referenceAt(text_.substr(ampersand));
          fail(reference && reference->starts_with("&#")
                   ? *reference + " is not a valid character reference"
                   : std::string("an '&' does not start a reference"));
        } else if (at.starts_with('<')) {
          fail("a '<' does not start an element");
        } else {
          break;
        }
        return;
      }
      default:
        break;
    }
    fail(std::string("the document is not well-formed XML (") + XML_ErrorString(code) + ")");
  }

  void fail(const std::string& message) {
    if (!why_.empty()) return;
    why_ = "XML property list, line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " +
           message;
    XML_StopParser(parser_, XML_FALSE);  // refused when expat has stopped already; harmless
  }

  std::optional<std::string> escaped_;  // the document with stand-ins, when it needed them
  std::string_view text_;               // what expat reads
  XML_Parser parser_ = nullptr;         // while read() runs
  std::vector<Frame> frames_;
  std::string_view leaf_;  // the leaf element open, one of the names in start()
  std::string content_;    // its text so far
  std::optional<PlistValue> result_;
  std::string why_;
  bool outOfMemory_ = false;
};

}  // namespace

std::optional<PlistValue> readXmlPlist(std::span<const std::uint8_t> bytes, std::string& why) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return XmlPlistReader(text).read(why);
}

std::vector<std::uint8_t> writeXmlPlist(const PlistValue& value) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\">\n";
  writeXmlValue(value, out);
  out += "</plist>\n";
  return std::vector<std::uint8_t>(out.begin(), out.end());
}

}  // namespace orvex
