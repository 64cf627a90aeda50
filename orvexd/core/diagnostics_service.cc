#include "orvexd/core/diagnostics_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <string>

#include "orvexd/core/diagnostic_data_reporter.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/process_transaction.h"

namespace orvex {

DiagnosticsService::DiagnosticsService(sdbus::IConnection& connection)
    : object_(sdbus::createObject(connection, kOrvexObjectPath)) {
  object_->registerMethod("GetCounters")
      .onInterface(kOrvexDiagnosticsInterface)
      .withOutputParamNames("counters")
      .implementedAs([]() -> std::map<std::string, int64_t> {
        return runBusHandler("GetCounters", [] { return OrvexDiagnosticDataReporter::snapshot(); });
      });
  object_->registerMethod("GetTransactions")
      .onInterface(kOrvexDiagnosticsInterface)
      .withOutputParamNames("transactions")
      .implementedAs([]() -> std::map<std::string, int64_t> {
        return runBusHandler("GetTransactions",
                             [] { return ProcessTransaction::openTransactions(); });
      });
  object_->finishRegistration();
}

DiagnosticsService::~DiagnosticsService() = default;

}  // namespace orvex
