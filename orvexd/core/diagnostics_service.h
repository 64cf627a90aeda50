// com.zelmor.orvexd.Diagnostics on /com/zelmor/orvexd: what the daemon has counted and which
// process transactions are open.
//
//   GetCounters() -> a{sx}      every counter key with its value
//   GetTransactions() -> a{sx}  open process transactions by name
//   GetBag() -> s               the bag the daemon holds, as JSON text ("" when it has none);
//                               like any read of the bag, it starts a fetch when the bag is
//                               missing or stale
//   RunActivity(s identifier)   runs a registered background activity now; an unknown one (or
//                               one already running) ends the call with InvalidArgument.
//                               Only for processes of the daemon's own user (AccessDenied)
//
// The handlers read thread-safe stores (the scheduler is one) and answer on the bus thread.
#pragma once

#include <memory>

namespace sdbus {
class IConnection;
class IObject;
}  // namespace sdbus

namespace orvex {

class Assembly;

class DiagnosticsService {
 public:
  DiagnosticsService(sdbus::IConnection& connection, Assembly& assembly);
  ~DiagnosticsService();
  DiagnosticsService(const DiagnosticsService&) = delete;
  DiagnosticsService& operator=(const DiagnosticsService&) = delete;

 private:
  std::unique_ptr<sdbus::IObject> object_;
};

}  // namespace orvex
