// Builds the a{sv} argument of a client's call from arbitrary bytes and hands it to the readers
// the daemon's bus handlers use: the request read straight from the message, the same request
// and the session configuration read from a dictionary of variants, and the input limits.
//
// The bytes are a sequence of entries: a key byte (a known key, or a key of the bytes' own), a
// type byte and the value. Values are the types clients send plus some they do not (nested
// dictionaries, a variant in a variant), built without recursion. Both request readers must agree
// on a dictionary without repeated keys, and a request read must come back the same through
// both writers.
#include <sdbus-c++/Message.h>
#include <sdbus-c++/Types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <tuple>

#include "fuzz/fuzz_support.h"
#include "orvexd/client/dbus_forms.h"
#include "orvexd/model/input_limits.h"

// Exported by sdbus-c++ but declared only in its internal headers: a message on a connection to
// no bus, which is what a Variant holds its value in.
namespace sdbus {
PlainMessage createPlainMessage();
}

namespace {

using orvex::fuzz::check;

const char* const kKeys[] = {
    "kind",         "queryString",   "queryId",           "clientQueryId",
    "triggerEvent", "scale",         "keyboardInputMode", "verboseReply",
    "queryItems",   "topics",        "moreResultsURL",    "applicationBundleIdentifier",
    "hintDomain",   "selectionType", "contextText",       "flightQuery",
    "flightId",     "identifier",    "userAgent",         "dontPreloadImages"};

struct Input {
  const uint8_t* data;
  size_t size;
  uint8_t byte() {
    if (size == 0) return 0;
    --size;
    return *data++;
  }
  uint64_t number() {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = value << 8 | byte();
    return value;
  }
  std::string text() {
    const size_t length = std::min<size_t>(byte() % 48, size);
    std::string value(reinterpret_cast<const char*>(data), length);
    data += length;
    size -= length;
    return value;
  }
};

// Appends one value of a type the input picks; `nested` allows an a{sv} or a variant inside.
void appendValue(sdbus::Message& message, Input& in, bool nested) {
  const uint8_t type = in.byte() % (nested ? 12 : 10);
  const auto variant = [&](const char* signature, auto&& write) {
    message.openVariant(signature);
    write();
    message.closeVariant();
  };
  const auto scalar = [&](const char* signature, auto value) {
    variant(signature, [&] { message << value; });
  };
  switch (type) {
    case 0:
      return scalar("s", in.text());
    case 1:
      return scalar("x", static_cast<int64_t>(in.number()));
    case 2:
      return scalar("t", in.number());
    case 3:
      return scalar("u", static_cast<uint32_t>(in.number()));
    case 4:
      return scalar("i", static_cast<int32_t>(in.number()));
    case 5:
      return scalar("d", std::bit_cast<double>(in.number()));
    case 6:
      return scalar("b", in.byte() % 2 == 1);
    case 7:
    case 8:
    case 9: {
      const char* const kSignatures[] = {"a(ss)", "as", "a{ss}"};
      const char* const kElements[] = {"(ss)", "s", "{ss}"};
      variant(kSignatures[type - 7], [&] {
        message.openContainer(kElements[type - 7]);
        for (uint8_t count = in.byte() % 8; count > 0; --count) {
          if (type == 8) {
            message << in.text();
          } else {
            type == 7 ? message.openStruct("ss") : message.openDictEntry("ss");
            message << in.text() << in.text();
            type == 7 ? message.closeStruct() : message.closeDictEntry();
          }
        }
        message.closeContainer();
      });
      break;
    }
    case 10:
      variant("a{sv}", [&] {
        message.openContainer("{sv}");
        for (uint8_t count = in.byte() % 4; count > 0; --count) {
          message.openDictEntry("sv");
          message << in.text();
          appendValue(message, in, false);
          message.closeDictEntry();
        }
        message.closeContainer();
      });
      break;
    default:
      variant("v", [&] { appendValue(message, in, false); });
  }
}

auto fields(const orvex::ORVRequest& r) {
  return std::tie(r.kind, r.queryString, r.queryId, r.clientQueryId, r.triggerEvent,
                  r.keyboardInputMode, r.verboseReply, r.queryItems, r.topics, r.moreResultsURL,
                  r.applicationBundleIdentifier, r.hintDomain, r.selectionType, r.contextText,
                  r.flightQuery, r.flightId);
}
bool same(const orvex::ORVRequest& a, const orvex::ORVRequest& b) {
  return fields(a) == fields(b) &&
         std::bit_cast<uint64_t>(a.scale) == std::bit_cast<uint64_t>(b.scale);
}

orvex::dbus::RequestForm throughMessage(const orvex::ORVRequest& request) {
  auto message = sdbus::createPlainMessage();
  orvex::dbus::writeRequest(message, request);
  message.seal();
  return orvex::dbus::readRequest(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  auto message = sdbus::createPlainMessage();
  std::set<std::string> keys;
  bool repeated = false;
  try {
    message.openContainer("{sv}");
    for (int entries = 0; in.size > 0 && entries < 32; ++entries) {
      const uint8_t pick = in.byte();
      const std::string key = pick < std::size(kKeys) ? kKeys[pick] : in.text();
      repeated |= !keys.insert(key).second;
      message.openDictEntry("sv");
      message << key;
      appendValue(message, in, true);
      message.closeDictEntry();
    }
    message.closeContainer();
    message.seal();
  } catch (const sdbus::Error&) {
    return 0;  // not a message a bus would carry (a string that is not UTF-8, say)
  }

  const orvex::InputLimits limits;
  const auto read = orvex::dbus::readRequest(message);
  check(!(read.request && (read.unknownKind || !read.problem.empty())));
  message.rewind(true);
  orvex::dbus::Dict form;
  message >> form;
  const auto fromForm = orvex::dbus::requestFromDBus(form);
  if (!repeated) {
    check(read.request.has_value() == fromForm.request.has_value());
    if (read.request) check(same(*read.request, *fromForm.request));
  }
  std::string problem;
  if (const auto configuration = orvex::dbus::configurationFromDBus(form, &problem)) {
    (void)orvex::configurationProblem(*configuration, limits);
    const auto again =
        orvex::dbus::configurationFromDBus(orvex::dbus::toDBus(*configuration), nullptr);
    check(again == configuration);
  } else {
    check(!problem.empty());
  }

  if (const auto& request = fromForm.request) {
    (void)orvex::requestProblem(*request, limits);
    const auto viaForm = orvex::dbus::requestFromDBus(orvex::dbus::toDBus(*request));
    check(viaForm.request && same(*viaForm.request, *request));
    const auto viaMessage = throughMessage(*request);
    check(viaMessage.request && same(*viaMessage.request, *request));
  }
  return 0;
}
