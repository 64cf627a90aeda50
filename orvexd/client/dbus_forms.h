// The D-Bus forms of the records that travel between clients and the daemon: configurations,
// requests, replies, errors and feedback records.
//
// Dictionaries are a{sv}. Absent values travel as an empty string or an empty dictionary, so an
// empty reply dictionary is "no reply" and an empty error dictionary is "no error". Readers
// accept unknown keys (newer clients may send more) but refuse a known key of the wrong type,
// saying which key was wrong.
#pragma once

#include <sdbus-c++/Types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/model/image_description.h"
#include "orvexd/model/orv_reply.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/model/orv_session_configuration.h"

namespace sdbus {
class Message;
}

namespace orvex::dbus {

using Dict = std::map<std::string, sdbus::Variant>;

// The error domain of the daemon's errors, and the names of the D-Bus errors that end a call.

Dict toDBus(const ORVSessionConfiguration& configuration);
// Missing keys read as empty; `problem` names a key of the wrong type.
std::optional<ORVSessionConfiguration> configurationFromDBus(const Dict& form,
                                                             std::string* problem);

Dict toDBus(const ORVRequest& request);
struct RequestForm {
  std::optional<ORVRequest> request;
  bool unknownKind = false;  // "kind" missing or not one of the known kinds
  std::string problem;       // a known key of the wrong type
};
RequestForm requestFromDBus(const Dict& form);

Dict toDBus(const std::optional<ORVReply>& reply);
std::optional<ORVReply> replyFromDBus(const Dict& form);

Dict toDBus(const std::optional<OrvexError>& error);
std::optional<OrvexError> errorFromDBus(const Dict& form);

// An image description of LoadImages: "url" s, "id" s, "data" ay. The daemon never needs an
// image's own bytes, so the reader only checks the type of "data" and leaves it unread.
Dict toDBus(const ImageDescription& image);
std::optional<ImageDescription> imageDescriptionFromDBus(const Dict& form, std::string* problem);

// The a{say} answer of LoadImages, written and read with each image's bytes as one array: the
// writer copies them into the message straight from where they are, the reader copies each out
// once (sdbus-c++ alone would go byte by byte). False when the message holds no such answer.
void writeImages(sdbus::Message& message,
                 const std::map<std::string, std::span<const uint8_t>>& images);
bool readImages(sdbus::Message& message, std::map<std::string, std::vector<uint8_t>>& images);

// The same forms written into and read from a message directly, for the per-keystroke path:
// no sdbus::Variant is made for a field, which halves the cost of a request round trip.
void writeRequest(sdbus::Message& message, const ORVRequest& request);
RequestForm readRequest(sdbus::Message& message);
// The (x, a{sv}, a{sv}) answer to a request.
void writeQueryAnswer(sdbus::Message& message, int64_t queryId,
                      const std::optional<ORVReply>& reply, const std::optional<OrvexError>& error);
// False when the message does not hold such an answer.
bool readQueryAnswer(sdbus::Message& message, int64_t& queryId, std::optional<ORVReply>& reply,
                     std::optional<OrvexError>& error);

}  // namespace orvex::dbus
