#include "orvexd/core/diagnostics_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <string>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/platform/activity_scheduler.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/process_transaction.h"

namespace orvex {

namespace {

// Activity identifiers are reverse-DNS names; anything longer is not one.
constexpr size_t kMaxActivityIdentifierBytes = 256;

}  // namespace

DiagnosticsService::DiagnosticsService(sdbus::IConnection& connection, Assembly& assembly)
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
  object_->registerMethod("GetBag")
      .onInterface(kOrvexDiagnosticsInterface)
      .withOutputParamNames("bag")
      .implementedAs([&assembly]() -> std::string {
        return runBusHandler("GetBag", [&assembly] {
          const auto bag = assembly.bagController ? assembly.bagController->currentBag() : nullptr;
          return bag ? jsonTextForBus(bag->rawBag().dump()) : std::string();
        });
      });
  sdbus::IObject* object = object_.get();
  object_->registerMethod("RunActivity")
      .onInterface(kOrvexDiagnosticsInterface)
      .withInputParamNames("identifier")
      .implementedAs([&assembly, object](const std::string& identifier) {
        runBusHandler("RunActivity", [&] {
          requireCallerOfOwnUser(*object->getCurrentlyProcessedMessage(), "RunActivity");
          if (identifier.size() > kMaxActivityIdentifierBytes) {
            throw sdbus::Error(kOrvexErrorInvalidArgument,
                               "an activity identifier has at most " +
                                   std::to_string(kMaxActivityIdentifierBytes) + " bytes");
          }
          const auto& scheduler = assembly.activityScheduler;
          if (!scheduler || !scheduler->runNow(identifier)) {
            throw sdbus::Error(kOrvexErrorInvalidArgument,
                               std::string("no activity \"")
                                   .append(identifier)
                                   .append("\" to run: unknown, or already running"));
          }
          OrvexLogForCategory(kOrvexLogGeneral).info("activity %@ run on request", identifier);
        });
      });
  object_->finishRegistration();
}

DiagnosticsService::~DiagnosticsService() = default;

}  // namespace orvex
