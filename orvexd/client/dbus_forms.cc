#include "orvexd/client/dbus_forms.h"

#include <sdbus-c++/Message.h>

#include <array>
#include <utility>
#include <vector>

namespace orvex::dbus {

namespace {

using StringPairs = std::vector<sdbus::Struct<std::string, std::string>>;
using StringMap = std::map<std::string, std::string>;

// ---- The fields of each record, listed once ---------------------------------------------------
//
// A visitor is called as v(key, field) for every field; the writers below skip fields that hold
// their default value (absent and default mean the same), the readers fill those they find.

template <class V, class Request>
void visitRequest(V& v, Request& request) {
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
}

template <class V, class Reply>
void visitReply(V& v, Reply& reply) {
  v("scale", reply.scale);
  v("rawResponse", reply.rawResponse);
  v("geoSessionEntityString", reply.geoSessionEntityString);
  v("httpRequest", reply.httpRequest);
  v("httpResponse", reply.httpResponse);
}

template <class V, class Info>
void visitHttpRequest(V& v, Info& info) {
  v("url", info.url);
  v("method", info.method);
  v("headers", info.headers);
}

template <class V, class Info>
void visitHttpResponse(V& v, Info& info) {
  v("url", info.url);
  v("statusCode", info.statusCode);
  v("headers", info.headers);
}

template <class V, class Error>
void visitError(V& v, Error& error) {
  v("domain", error.domain);
  v("code", error.code);
  v("reason", error.reason);
}

template <class V, class Configuration>
void visitConfiguration(V& v, Configuration& configuration) {
  v("identifier", configuration.identifier);
  v("userAgent", configuration.userAgent);
  v("dontPreloadImages", configuration.dontPreloadImages);
}

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

// ---- Writing into a dictionary of variants -----------------------------------------------------

struct DictWriter {
  Dict form;

  template <class T>
  void operator()(const char* key, const T& value) {
    if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>> ||
                  std::is_same_v<T, std::optional<ORVHttpResponseInfo>>) {
      if (!value) return;
      DictWriter nested;
      if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>>) {
        visitHttpRequest(nested, *value);
      } else {
        visitHttpResponse(nested, *value);
      }
      form[key] = sdbus::Variant(nested.form);
    } else {
      if (isDefault(value)) return;
      form[key] = sdbus::Variant(wireForm(value));
    }
  }
};

// ---- Reading from a dictionary of variants -----------------------------------------------------

struct DictReader {
  const Dict& form;
  std::string problem;

  template <class T>
  void operator()(const char* key, T& into) {
    const auto it = form.find(key);
    if (it == form.end()) return;
    if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>> ||
                  std::is_same_v<T, std::optional<ORVHttpResponseInfo>>) {
      Dict nestedForm;
      readValue(key, it->second, nestedForm);
      if (nestedForm.empty()) return;
      DictReader nested{nestedForm, {}};
      into.emplace();
      if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>>) {
        visitHttpRequest(nested, *into);
      } else {
        visitHttpResponse(nested, *into);
      }
    } else {
      typename WireType<T>::type value{};
      if (readValue(key, it->second, value)) fromWire(std::move(value), into);
    }
  }

  template <class W>
  bool readValue(const char* key, const sdbus::Variant& variant, W& into) {
    if (!variant.containsValueOfType<W>()) {
      if (problem.empty()) {
        problem = std::string("\"") + key + "\" must be of type " + sdbus::signature_of<W>::str();
      }
      return false;
    }
    into = variant.get<W>();
    return true;
  }
};

// ---- Writing straight into a message (no intermediate variants) --------------------------------

struct MessageWriter {
  sdbus::Message& message;
  int written = 0;

  template <class T>
  void operator()(const char* key, const T& value) {
    if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>> ||
                  std::is_same_v<T, std::optional<ORVHttpResponseInfo>>) {
      if (!value) return;
      DictWriter nested;
      if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>>) {
        visitHttpRequest(nested, *value);
      } else {
        visitHttpResponse(nested, *value);
      }
      entry(key, nested.form);
    } else {
      if (isDefault(value)) return;
      entry(key, wireForm(value));
    }
  }

  template <class W>
  void entry(const char* key, const W& value) {
    message.openDictEntry("sv");
    message << key;
    message.openVariant(sdbus::signature_of<W>::str());
    message << value;
    message.closeVariant();
    message.closeDictEntry();
    ++written;
  }
};

template <class Visit>
void writeDict(sdbus::Message& message, Visit visit) {
  message.openContainer("{sv}");
  MessageWriter writer{message};
  visit(writer);
  message.closeContainer();
}

// ---- Reading straight from a message -----------------------------------------------------------

// One entry of an a{sv} being read: the visitor takes the value when the key is one of its
// fields and the value has the field's type; anything else is skipped whole.
struct MessageEntryReader {
  sdbus::Message& message;
  const std::string& key;
  const std::string& contents;  // the variant's signature
  std::string& problem;
  bool consumed = false;

  template <class T>
  void operator()(const char* name, T& into) {
    if (consumed || key != name) return;
    if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>> ||
                  std::is_same_v<T, std::optional<ORVHttpResponseInfo>>) {
      Dict form;
      if (!take(name, form) || form.empty()) return;
      DictReader nested{form, {}};
      into.emplace();
      if constexpr (std::is_same_v<T, std::optional<ORVHttpRequestInfo>>) {
        visitHttpRequest(nested, *into);
      } else {
        visitHttpResponse(nested, *into);
      }
    } else {
      typename WireType<T>::type value{};
      if (take(name, value)) fromWire(std::move(value), into);
    }
  }

  template <class W>
  bool take(const char* name, W& into) {
    if (contents != sdbus::signature_of<W>::str()) {
      if (problem.empty()) {
        problem = std::string("\"") + name + "\" must be of type " + sdbus::signature_of<W>::str();
      }
      return false;
    }
    message.enterVariant(contents);
    message >> into;
    message.exitVariant();
    consumed = true;
    return true;
  }
};

// Reads one a{sv}, handing each entry to `visit(entryReader)`; returns false when the message
// holds no such dictionary here.
template <class Visit>
bool readDict(sdbus::Message& message, std::string& problem, Visit visit) {
  if (!message.enterContainer("{sv}")) {
    message.clearFlags();
    return false;
  }
  while (message.enterDictEntry("sv")) {
    std::string key;
    message >> key;
    std::string type;
    std::string contents;
    message.peekType(type, contents);
    MessageEntryReader entry{message, key, contents, problem};
    visit(entry);
    if (!entry.consumed) {
      sdbus::Variant skipped;
      message >> skipped;
    }
    message.exitDictEntry();
  }
  message.clearFlags();
  message.exitContainer();
  return true;
}

}  // namespace

Dict toDBus(const ORVSessionConfiguration& configuration) {
  DictWriter writer;
  visitConfiguration(writer, configuration);
  // Both keys are required: send them even when empty, so that the daemon says which is missing.
  writer.form.try_emplace("identifier", sdbus::Variant(configuration.identifier));
  writer.form.try_emplace("userAgent", sdbus::Variant(configuration.userAgent));
  return std::move(writer.form);
}

std::optional<ORVSessionConfiguration> configurationFromDBus(const Dict& form,
                                                             std::string* problem) {
  ORVSessionConfiguration configuration;
  DictReader reader{form, {}};
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

// Reads the kind first: an unknown kind is not an error, a kind of the wrong type is.
template <class Visit>
static RequestForm requestForm(std::string kind, std::string problem, Visit visitFields) {
  RequestForm result;
  if (!problem.empty()) {
    result.problem = std::move(problem);
    return result;
  }
  const auto parsedKind = kindFromName(kind);
  if (!parsedKind) {
    result.unknownKind = true;
    return result;
  }
  ORVRequest request;
  request.kind = *parsedKind;
  result.problem = visitFields(request);
  if (result.problem.empty()) result.request = std::move(request);
  return result;
}

RequestForm requestFromDBus(const Dict& form) {
  DictReader kindReader{form, {}};
  std::string kind;
  kindReader("kind", kind);
  return requestForm(kind, kindReader.problem, [&form](ORVRequest& request) {
    DictReader reader{form, {}};
    visitRequest(reader, request);
    return reader.problem;
  });
}

Dict toDBus(const std::optional<ORVReply>& reply) {
  if (!reply) return {};
  DictWriter writer;
  visitReply(writer, *reply);
  // A reply is never an empty dictionary, which would read as none.
  writer.form.try_emplace("scale", sdbus::Variant(reply->scale));
  return std::move(writer.form);
}

std::optional<ORVReply> replyFromDBus(const Dict& form) {
  if (form.empty()) return std::nullopt;
  ORVReply reply;
  DictReader reader{form, {}};
  visitReply(reader, reply);
  return reply;
}

Dict toDBus(const std::optional<OrvexError>& error) {
  if (!error) return {};
  DictWriter writer;
  visitError(writer, *error);
  return std::move(writer.form);
}

std::optional<OrvexError> errorFromDBus(const Dict& form) {
  if (form.empty()) return std::nullopt;
  OrvexError error;
  DictReader reader{form, {}};
  visitError(reader, error);
  return error;
}

void writeRequest(sdbus::Message& message, const ORVRequest& request) {
  writeDict(message, [&](MessageWriter& writer) {
    writer("kind", std::string(kindName(request.kind)));
    visitRequest(writer, request);
  });
}

RequestForm readRequest(sdbus::Message& message) {
  // One pass over the message: the kind and the fields together.
  std::string kind;
  ORVRequest request;
  RequestForm result;
  std::string problem;
  if (!readDict(message, problem, [&](MessageEntryReader& entry) {
        entry("kind", kind);
        visitRequest(entry, request);
      })) {
    result.problem = "the request must be a{sv}";
  } else if (!problem.empty()) {
    result.problem = std::move(problem);
  } else if (const auto parsedKind = kindFromName(kind)) {
    request.kind = *parsedKind;
    result.request = std::move(request);
  } else {
    result.unknownKind = true;
  }
  return result;
}

void writeQueryAnswer(sdbus::Message& message, int64_t queryId,
                      const std::optional<ORVReply>& reply,
                      const std::optional<OrvexError>& error) {
  message << queryId;
  writeDict(message, [&](MessageWriter& writer) {
    if (!reply) return;
    visitReply(writer, *reply);
    // A reply is never an empty dictionary, which would read as none.
    if (writer.written == 0) writer.entry("scale", reply->scale);
  });
  writeDict(message, [&](MessageWriter& writer) {
    if (error) visitError(writer, *error);
  });
}

bool readQueryAnswer(sdbus::Message& message, int64_t& queryId, std::optional<ORVReply>& reply,
                     std::optional<OrvexError>& error) {
  message >> queryId;
  std::string problem;
  ORVReply readReply;
  bool any = false;
  if (!readDict(message, problem, [&](MessageEntryReader& entry) {
        visitReply(entry, readReply);
        any |= entry.consumed;
      })) {
    return false;
  }
  reply = any ? std::optional<ORVReply>(std::move(readReply)) : std::nullopt;
  OrvexError readError;
  any = false;
  if (!readDict(message, problem, [&](MessageEntryReader& entry) {
        visitError(entry, readError);
        any |= entry.consumed;
      })) {
    return false;
  }
  error = any ? std::optional<OrvexError>(std::move(readError)) : std::nullopt;
  return true;
}

}  // namespace orvex::dbus
