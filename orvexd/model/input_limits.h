// Bounds on what a client may send the daemon. A configuration or request over a bound is
// refused with com.zelmor.orvexd.Error.InvalidArgument, saying which bound; a feedback record
// over its bound is dropped, logged and counted. Each bound can be changed with the defaults key
// named beside it (see the README).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/image_description.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/model/orv_session_configuration.h"

namespace orvex {

struct InputLimits {
  size_t identifierLength = 255;         // "ORVMaxIdentifierLength", bytes
  size_t userAgentLength = 255;          // "ORVMaxUserAgentLength", bytes
  size_t queryStringLength = 4096;       // "ORVMaxQueryLength", bytes of every string of a request
  size_t queryItemCount = 64;            // "ORVMaxQueryItems", query items and topics of a request
  size_t recordBytes = size_t{1} << 20;  // "ORVMaxRecordBytes", one feedback record's JSON text
  size_t imageCount = 256;               // "ORVMaxImagesPerLoad", images of one LoadImages call
};

// Why `configuration` is over a bound, or none.
std::optional<std::string> configurationProblem(const ORVSessionConfiguration& configuration,
                                                const InputLimits& limits);
// Why `request` is over a bound, or none.
std::optional<std::string> requestProblem(const ORVRequest& request, const InputLimits& limits);
// Why the images of a LoadImages call are over a bound (their count, or a "url" or "id" longer
// than a request's strings may be), or none.
std::optional<std::string> imagesProblem(const std::vector<ImageDescription>& images,
                                         const InputLimits& limits);

}  // namespace orvex
