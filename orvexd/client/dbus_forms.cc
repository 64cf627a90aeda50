#include "orvexd/client/dbus_forms.h"

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>
#include <systemd/sd-bus.h>

#include <array>
#include <utility>
#include <vector>

namespace orvex::dbus {

namespace {

using StringPairs = std::vector<sdbus::Struct<std::string, std::string>>;
using StringMap = std::map<std::string, std::string>;

// ---- The fields of each record, listed once ---------------------------------------------------
//
// A visitor is called as v(key, field) for every field, as v.required(key, field) for a field
// written even when it holds its default value, and as v.nested(key, field) for the HTTP
// information of a reply, which travels as an a{sv} of its own. The writers below skip the other
// fields that hold their default value (absent and default mean the same), the readers fill
// those they find.

constexpr auto visitRequest = [](auto& v, auto& request) {
  v("queryString", request.queryString);
  v("queryId", request.queryId);
  v("clientQueryId", request.clientQueryId);
  v("triggerEvent", request.triggerEvent);
  v("scale", request.scale);
  v("keyboardInputMode", request.keyboardInputMode);
  v("verboseReply", request.verboseReply);
  v("queryItems", request.queryItems);
  v("topics", request.topics);
  v("moreResultsURL", request.moreResultsURL);
  v("applicationBundleIdentifier", request.applicationBundleIdentifier);
  v("hintDomain", request.hintDomain);
  v("selectionType", request.selectionType);
  v("contextText", request.contextText);
  v("flightQuery", request.flightQuery);
  v("flightId", request.flightId);
};

constexpr auto visitReply = [](auto& v, auto& reply) {
  v("scale", reply.scale);
  v("rawResponse", reply.rawResponse);
  v("geoSessionEntityString", reply.geoSessionEntityString);
  v.nested("httpRequest", reply.httpRequest);
  v.nested("httpResponse", reply.httpResponse);
};

constexpr auto visitError = [](auto& v, auto& error) {
  v("domain", error.domain);
  v("code", error.code);
  v("reason", error.reason);
};

// Both keys are required: they are sent even when empty, so that the daemon says which is
// missing.
constexpr auto visitConfiguration = [](auto& v, auto& configuration) {
  v.required("identifier", configuration.identifier);
  v.required("userAgent", configuration.userAgent);
  v("dontPreloadImages", configuration.dontPreloadImages);
};

// The HTTP request and response information of a reply share their url and headers.
constexpr auto visitHttpInfo = [](auto& v, auto& info) {
  v("url", info.url);
  if constexpr (requires { info.method; }) {
    v("method", info.method);
  } else {
    v("statusCode", info.statusCode);
  }
  v("headers", info.headers);
};

template <class T>
bool isDefault(const T& value) {
  if constexpr (requires { value.empty(); }) {
    return value.empty();
  } else {
    return value == T{};
  }
}

// Converts a field to the value it travels as, and back.
StringPairs wireForm(const std::vector<URLQueryItem>& items) {
  StringPairs pairs;
  for (const auto& item : items) pairs.emplace_back(item.name, item.value);
  return pairs;
}
StringMap wireForm(const ORVHeaderList& headers) {
  StringMap map;
  for (const auto& [name, value] : headers) map[name] = value;
  return map;
}
template <class T>
const T& wireForm(const T& value) {
  return value;
}
void fromWire(const StringPairs& pairs, std::vector<URLQueryItem>& items) {
  items.clear();
  for (const auto& pair : pairs) items.push_back({pair.get<0>(), pair.get<1>()});
}
void fromWire(const StringMap& map, ORVHeaderList& headers) {
  headers.assign(map.begin(), map.end());
}
template <class T>
void fromWire(T value, T& into) {
  into = std::move(value);
}

template <class T>
struct WireType {
  using type = T;
};
template <>
struct WireType<std::vector<URLQueryItem>> {
  using type = StringPairs;
};
template <>
struct WireType<ORVHeaderList> {
  using type = StringMap;
};

// ---- Writing ---------------------------------------------------------------------------------

template <class Info>
Dict nestedForm(const Info& info);

// Puts the value each field travels as through Sink::put(key, value), skipping the fields that
// hold their default value unless they are required.
template <class Sink>
struct FieldWriter : Sink {
  template <class T>
  void operator()(const char* key, const T& value) {
    if (!isDefault(value)) Sink::put(key, wireForm(value));
  }
  template <class T>
  void required(const char* key, const T& value) {
    Sink::put(key, wireForm(value));
  }
  template <class Info>
  void nested(const char* key, const std::optional<Info>& value) {
    if (value) Sink::put(key, nestedForm(*value));
  }
};

// Into a dictionary of variants.
struct DictSink {
  Dict form;
  template <class W>
  void put(const char* key, const W& value) {
    form[key] = sdbus::Variant(value);
  }
};
using DictWriter = FieldWriter<DictSink>;

template <class Info>
Dict nestedForm(const Info& info) {
  DictWriter nested;
  visitHttpInfo(nested, info);
  return std::move(nested.form);
}

// Straight into a message, as the entries of an a{sv} (no intermediate variants).
struct MessageSink {
  sdbus::Message& message;
  int written = 0;
  template <class W>
  void put(const char* key, const W& value) {
    message.openDictEntry("sv");
    message << key;
    message.openVariant(sdbus::signature_of<W>::str());
    message << value;
    message.closeVariant();
    message.closeDictEntry();
    ++written;
  }
};
using MessageWriter = FieldWriter<MessageSink>;

template <class Visit>
void writeDict(sdbus::Message& message, Visit visit) {
  message.openContainer("{sv}");
  MessageWriter writer{{message}};
  visit(writer);
  message.closeContainer();
}

// The sd-bus message under an sdbus-c++ one, for the array calls sdbus-c++ lacks. The member is
// protected; a pointer to it may be formed in a derived class and used on any message.
struct MessageAccess : sdbus::Message {
  static sd_bus_message* raw(sdbus::Message& message) {
    return static_cast<sd_bus_message*>(message.*(&MessageAccess::msg_));
  }
};

// ---- Reading ---------------------------------------------------------------------------------

template <class Info>
void readNested(const Dict& form, Info& info);

// Fills the fields the source has a value of the right type for: Source::take(key, value) says
// whether it had one.
template <class Source>
struct FieldReader : Source {
  template <class T>
  void operator()(const char* key, T& into) {
    typename WireType<T>::type value{};
    if (Source::take(key, value)) fromWire(std::move(value), into);
  }
  template <class T>
  void required(const char* key, T& into) {
    (*this)(key, into);
  }
  template <class Info>
  void nested(const char* key, std::optional<Info>& into) {
    Dict form;
    if (!Source::take(key, form) || form.empty()) return;
    into.emplace();
    readNested(form, *into);
  }
};

// The first value of the wrong type is the problem reported.
template <class W>
void noteWrongType(std::string& problem, const char* key) {
  if (!problem.empty()) return;
  problem.append("\"").append(key).append("\" must be of type ");
  problem.append(sdbus::signature_of<W>::str());
}

// From a dictionary of variants.
struct DictSource {
  const Dict& form;
  std::string problem;

  template <class W>
  bool take(const char* key, W& into) {
    const auto it = form.find(key);
    if (it == form.end()) return false;
    if (!it->second.containsValueOfType<W>()) {
      noteWrongType<W>(problem, key);
      return false;
    }
    into = it->second.get<W>();
    return true;
  }
};
using DictReader = FieldReader<DictSource>;

template <class Info>
void readNested(const Dict& form, Info& info) {
  DictReader nested{{form, {}}};
  visitHttpInfo(nested, info);
}

// From one entry of an a{sv} being read straight from a message: the value is taken when the
// key is the field's and the value has the field's type; an entry no field takes is skipped
// whole.
struct EntrySource {
  sdbus::Message& message;
  const std::string& key;
  const std::string& contents;  // the variant's signature
  std::string& problem;
  bool consumed = false;

  template <class W>
  bool take(const char* name, W& into) {
    if (consumed || key != name) return false;
    if (contents != sdbus::signature_of<W>::str()) {
      noteWrongType<W>(problem, name);
      return false;
    }
    message.enterVariant(contents);
    message >> into;
    message.exitVariant();
    consumed = true;
    return true;
  }
};
using MessageEntryReader = FieldReader<EntrySource>;

// Reads a dictionary whose entries have the signature `entry` ("sv", "say"), calling
// `readValue(key)` for each entry's value; false when the message holds no such dictionary here,
// or when `readValue` fails.
template <class ReadValue>
bool readEntries(sdbus::Message& message, const std::string& entry, ReadValue readValue) {
  if (!message.enterContainer("{" + entry + "}")) {
    message.clearFlags();
    return false;
  }
  while (message.enterDictEntry(entry)) {
    std::string key;
    message >> key;
    if (!readValue(std::move(key))) return false;
    message.exitDictEntry();
  }
  message.clearFlags();
  message.exitContainer();
  return true;
}

// Reads one a{sv}, handing each entry to `visit(entryReader)`; returns false when the message
// holds no such dictionary here.
template <class Visit>
bool readDict(sdbus::Message& message, std::string& problem, Visit visit) {
  return readEntries(message, "sv", [&](const std::string& key) {
    std::string type;
    std::string contents;
    message.peekType(type, contents);
    MessageEntryReader entry{{message, key, contents, problem}};
    visit(entry);
    if (!entry.consumed) {
      sdbus::Variant skipped;
      message >> skipped;
    }
    return true;
  });
}

// The dictionary of `record`'s fields.
template <class Record, class Visit>
Dict dictOf(const Record& record, Visit visitFields) {
  DictWriter writer;
  visitFields(writer, record);
  return std::move(writer.form);
}

// A record read from `form`, or none when the dictionary is empty.
template <class Record, class Visit>
std::optional<Record> optionalFromDict(const Dict& form, Visit visitFields) {
  if (form.empty()) return std::nullopt;
  Record record;
  DictReader reader{{form, {}}};
  visitFields(reader, record);
  return record;
}

// A record read from the a{sv} the message holds here, or none when no entry fills a field.
// False when the message holds no such dictionary.
template <class Record, class Visit>
bool readOptional(sdbus::Message& message, std::string& problem, std::optional<Record>& into,
                  Visit visitFields) {
  Record record;
  bool any = false;
  if (!readDict(message, problem, [&](MessageEntryReader& entry) {
        visitFields(entry, record);
        any |= entry.consumed;
      })) {
    return false;
  }
  into = any ? std::optional<Record>(std::move(record)) : std::nullopt;
  return true;
}

// A request's form: a kind of the wrong type, then an unknown kind (which is not an error),
// then a field of the wrong type, each stops the reading.
RequestForm requestForm(std::string_view kind, std::string kindProblem, ORVRequest request,
                        std::string fieldProblem) {
  RequestForm result;
  const auto parsedKind = kindFromName(kind);
  if (!kindProblem.empty()) {
    result.problem = std::move(kindProblem);
  } else if (!parsedKind) {
    result.unknownKind = true;
  } else if (!fieldProblem.empty()) {
    result.problem = std::move(fieldProblem);
  } else {
    request.kind = *parsedKind;
    result.request = std::move(request);
  }
  return result;
}

}  // namespace

Dict toDBus(const ORVSessionConfiguration& configuration) {
  return dictOf(configuration, visitConfiguration);
}

std::optional<ORVSessionConfiguration> configurationFromDBus(const Dict& form,
                                                             std::string* problem) {
  ORVSessionConfiguration configuration;
  DictReader reader{{form, {}}};
  visitConfiguration(reader, configuration);
  if (!reader.problem.empty()) {
    if (problem != nullptr) *problem = reader.problem;
    return std::nullopt;
  }
  return configuration;
}

Dict toDBus(const ORVRequest& request) {
  DictWriter writer;
  writer("kind", std::string(kindName(request.kind)));
  visitRequest(writer, request);
  return std::move(writer.form);
}

RequestForm requestFromDBus(const Dict& form) {
  // The kind first: the problems of the other fields do not matter when it is unknown.
  DictReader kindReader{{form, {}}};
  std::string kind;
  kindReader("kind", kind);
  DictReader reader{{form, {}}};
  ORVRequest request;
  visitRequest(reader, request);
  return requestForm(kind, std::move(kindReader.problem), std::move(request),
                     std::move(reader.problem));
}

Dict toDBus(const std::optional<ORVReply>& reply) {
  if (!reply) return {};
  Dict form = dictOf(*reply, visitReply);
  // A reply is never an empty dictionary, which would read as none.
  form.try_emplace("scale", sdbus::Variant(reply->scale));
  return form;
}

std::optional<ORVReply> replyFromDBus(const Dict& form) {
  return optionalFromDict<ORVReply>(form, visitReply);
}

Dict toDBus(const std::optional<OrvexError>& error) {
  return error ? dictOf(*error, visitError) : Dict();
}

std::optional<OrvexError> errorFromDBus(const Dict& form) {
  return optionalFromDict<OrvexError>(form, visitError);
}

void writeRequest(sdbus::Message& message, const ORVRequest& request) {
  writeDict(message, [&](MessageWriter& writer) {
    writer("kind", std::string(kindName(request.kind)));
    visitRequest(writer, request);
  });
}

RequestForm readRequest(sdbus::Message& message) {
  // One pass over the message: the kind and the fields together, so the first wrong entry is
  // the problem whichever it is.
  std::string kind;
  ORVRequest request;
  std::string problem;
  if (!readDict(message, problem, [&](MessageEntryReader& entry) {
        entry("kind", kind);
        visitRequest(entry, request);
      })) {
    problem = "the request must be a{sv}";
  }
  return requestForm(kind, std::move(problem), std::move(request), {});
}

void writeQueryAnswer(sdbus::Message& message, int64_t queryId,
                      const std::optional<ORVReply>& reply,
                      const std::optional<OrvexError>& error) {
  message << queryId;
  writeDict(message, [&](MessageWriter& writer) {
    if (!reply) return;
    visitReply(writer, *reply);
    // A reply is never an empty dictionary, which would read as none.
    if (writer.written == 0) writer.put("scale", reply->scale);
  });
  writeDict(message, [&](MessageWriter& writer) {
    if (error) visitError(writer, *error);
  });
}

bool readQueryAnswer(sdbus::Message& message, int64_t& queryId, std::optional<ORVReply>& reply,
                     std::optional<OrvexError>& error) {
  message >> queryId;
  std::string problem;
  return readOptional(message, problem, reply, visitReply) &&
         readOptional(message, problem, error, visitError);
}

Dict toDBus(const ImageDescription& image) {
  Dict form;
  if (image.url) form["url"] = sdbus::Variant(*image.url);
  if (image.id) form["id"] = sdbus::Variant(*image.id);
  if (!image.data.empty()) form["data"] = sdbus::Variant(image.data);
  return form;
}

std::optional<ImageDescription> imageDescriptionFromDBus(const Dict& form, std::string* problem) {
  DictSource source{form, {}};
  ImageDescription image;
  for (auto [key, into] : {std::pair{"url", &image.url}, std::pair{"id", &image.id}}) {
    if (std::string text; source.take(key, text)) *into = std::move(text);
  }
  if (const auto data = form.find("data");
      data != form.end() && !data->second.containsValueOfType<std::vector<uint8_t>>()) {
    noteWrongType<std::vector<uint8_t>>(source.problem, "data");
  }
  if (!source.problem.empty()) {
    if (problem != nullptr) *problem = source.problem;
    return std::nullopt;
  }
  return image;
}

void writeImages(sdbus::Message& message,
                 const std::map<std::string, std::span<const uint8_t>>& images) {
  message.openContainer("{say}");
  for (const auto& [key, bytes] : images) {
    message.openDictEntry("say");
    message << key;
    const int result =
        sd_bus_message_append_array(MessageAccess::raw(message), 'y', bytes.data(), bytes.size());
    if (result < 0) throw sdbus::createError(-result, "cannot append an image");
    message.closeDictEntry();
  }
  message.closeContainer();
}

bool readImages(sdbus::Message& message, std::map<std::string, std::vector<uint8_t>>& images) {
  return readEntries(message, "say", [&](std::string key) {
    const void* data = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(MessageAccess::raw(message), 'y', &data, &size) < 0) {
      return false;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    images[std::move(key)].assign(bytes, bytes + size);
    return true;
  });
}

}  // namespace orvex::dbus
