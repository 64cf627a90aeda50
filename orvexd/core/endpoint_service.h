// The endpoint whose path Configure hands out: the object /com/zelmor/orvexd/Endpoint, interface
// com.zelmor.orvexd.Endpoint. Clients send follow-up requests there with their configuration
// (it serves only more-results and card requests, and drops anything else without a reply), and
// load the images answers named (LoadImages, which waits at most its time-out, counted from the
// call's arrival, and answers with the images cached by then).
//
// Threading: calls arrive on the bus thread, which owns callers_; the requests and loads run on
// the components' worker pool and are answered back on the bus thread.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "orvexd/core/bus_service.h"

namespace sdbus {
class Message;
}  // namespace sdbus

namespace orvex {

class EndpointService : public BusService, public std::enable_shared_from_this<EndpointService> {
 public:
  using BusService::BusService;

  // Exports the object and starts watching for callers leaving the bus. Call on the main thread,
  // before the bus name is owned, once the service is owned by a shared_ptr.
  void start();

 private:
  void exportEndpoint();
  // Bus thread only.
  void noteCaller(const sdbus::Message& message);

  std::set<std::string> callers_;  // bus thread: unique names that used the endpoint
};

}  // namespace orvex
