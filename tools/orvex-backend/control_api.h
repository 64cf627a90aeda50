// The control API under /_orvex/, through which tests and people steer the server:
//   PUT    /_orvex/faults/<endpoint>   body: a fault (see fault.h)       -> 204
//   DELETE /_orvex/faults/<endpoint>                                     -> 204
//   DELETE /_orvex/faults                                                -> 204
//   GET    /_orvex/faults                     {"<endpoint>": <fault>...} -> 200
//   GET    /_orvex/requests[?since=SEQ]       [<logged request>...]      -> 200
//   DELETE /_orvex/requests                                              -> 204
//   GET    /_orvex/feedback[?since=ID]        [<stored upload>...]       -> 200
//   DELETE /_orvex/feedback                                              -> 204
// Bad input gets 400 with the reason, an endpoint name the server does not know 404, another
// method 405.
#pragma once

#include <string>
#include <string_view>

#include "tools/orvex-backend/endpoint_registry.h"
#include "tools/orvex-backend/fault_table.h"
#include "tools/orvex-backend/feedback_store.h"
#include "tools/orvex-backend/request_log.h"

namespace orvex::backend {

class ControlApi {
 public:
  static constexpr std::string_view kPrefix = "/_orvex/";

  ControlApi(const EndpointRegistry& endpoints, FaultTable& faults, RequestLog& log,
             FeedbackStore& feedback)
      : endpoints_(endpoints), faults_(faults), log_(log), feedback_(feedback) {}

  // `path` is percent-decoded and starts with kPrefix; `rawQuery` is as sent.
  EndpointReply handle(const std::string& method, const std::string& path,
                       std::string_view rawQuery, const std::string& body);

 private:
  EndpointReply handleFaults(const std::string& method);
  EndpointReply handleEndpointFault(const std::string& method, const std::string& endpoint,
                                    const std::string& body);
  EndpointReply handleRequests(const std::string& method, std::string_view rawQuery);
  EndpointReply handleFeedback(const std::string& method, std::string_view rawQuery);

  const EndpointRegistry& endpoints_;
  FaultTable& faults_;
  RequestLog& log_;
  FeedbackStore& feedback_;
};

}  // namespace orvex::backend
