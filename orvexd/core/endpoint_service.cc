#include "orvexd/core/endpoint_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/client/dbus_forms.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/client_state.h"

namespace orvex {

namespace {

const OrvexLog& connectionLog() { return OrvexLogForCategory(kOrvexLogConnection); }

using EndpointReply = BusReply<int64_t, dbus::Dict, dbus::Dict>;

std::string describeConfiguration(const dbus::Dict& form) {
  std::string text = "{";
  for (const auto& [key, value] : form) {
    if (text.size() > 1) text += ", ";
    text += key;
    if (value.containsValueOfType<std::string>()) text += " = " + value.get<std::string>();
  }
  return text + "}";
}

}  // namespace

void EndpointService::start() {
  exportEndpoint();
  watchCallersLeaving([weakSelf = weak_from_this()](const std::string& name) {
    auto self = weakSelf.lock();
    if (self && self->callers_.erase(name) > 0) {
      connectionLog().debug("endpoint connection invalidated");
    }
  });
}

void EndpointService::noteCaller(const sdbus::Message& message) {
  if (callers_.insert(message.getSender()).second) {
    connectionLog().debug("new endpoint connection");
  }
}

void EndpointService::exportEndpoint() {
  object_ = sdbus::createObject(bus_.connection(), kOrvexEndpointPath);
  std::weak_ptr<EndpointService> weakSelf = weak_from_this();
  BusConnection& bus = bus_;
  sdbus::IObject* endpointObject = object_.get();
  object_->registerMethod("Request")
      .onInterface(kOrvexEndpointInterface)
      .withInputParamNames("request", "configuration")
      .withOutputParamNames("query_id", "reply", "error")
      .implementedAs([weakSelf, &bus, endpointObject](
                         sdbus::Result<int64_t, dbus::Dict, dbus::Dict>&& result,
                         const dbus::Dict& requestForm, const dbus::Dict& configurationForm) {
        runBusHandler("Endpoint.Request", [&] {
          EndpointReply reply(bus, std::move(result));
          auto self = weakSelf.lock();
          if (!self) return;
          self->noteCaller(*endpointObject->getCurrentlyProcessedMessage());
          // Read on the bus thread: what crosses to the pool are plain values.
          auto form = dbus::requestFromDBus(requestForm);
          if (form.request) {
            if (auto over = requestProblem(*form.request, self->assembly_.inputLimits)) {
              form.problem = *over;
            }
          }
          if (!form.problem.empty()) {
            reply.fail(kOrvexErrorInvalidArgument, form.problem);
            return;
          }
          if (!form.request) return;  // an unknown kind is dropped
          std::string problem;
          auto configuration = dbus::configurationFromDBus(configurationForm, &problem);
          if (configuration) {
            if (auto over = configurationProblem(*configuration, self->assembly_.inputLimits)) {
              reply.fail(kOrvexErrorInvalidArgument, *over);
              return;
            }
          }
          self->assembly_.workerPool->post([self, reply, request = std::move(*form.request),
                                            configuration = std::move(configuration),
                                            described = describeConfiguration(configurationForm)] {
            // Only a configured (or persisted) client has a state here: the endpoint makes
            // none, so made-up identifiers cannot fill the registry.
            auto state = configuration
                             ? self->assembly_.clientStateManager->existingStateForClientIdentifier(
                                   configuration->identifier)
                             : nullptr;
            if (!state) {
              const OrvexError error(kORVErrorDomain, 500, "invalid configuration " + described);
              reply.sendFrom([queryId = request.queryId, error] {
                return std::make_tuple(queryId, dbus::Dict(), dbus::toDBus(error));
              });
              return;
            }
            auto answer = [reply](int64_t queryId, std::optional<ORVReply> answer,
                                  std::optional<OrvexError> error) {
              reply.sendFrom([queryId, answer = std::move(answer), error] {
                return std::make_tuple(queryId, dbus::toDBus(answer), dbus::toDBus(error));
              });
            };
            if (request.kind == ORVRequestKind::kMoreResults) {
              state->moreResults(request, answer);
            } else if (request.kind == ORVRequestKind::kCard) {
              state->card(request, answer);
            }
          });
        });
      });
  object_->registerMethod("LoadImages")
      .onInterface(kOrvexEndpointInterface)
      .withInputParamNames("images", "timeout_ms")
      .withOutputParamNames("images")
      .implementedAs([&bus](sdbus::Result<std::map<std::string, std::vector<uint8_t>>>&& result,
                            std::vector<dbus::Dict>, uint64_t) {
        runBusHandler("Endpoint.LoadImages", [&] {
          BusReply<std::map<std::string, std::vector<uint8_t>>> reply(bus, std::move(result));
          reply.fail(kOrvexErrorNotSupported, "image loading is not available");
        });
      });
  object_->finishRegistration();
  connectionLog().debug("endpoint %@ exported", std::string(kOrvexEndpointPath));
}

}  // namespace orvex
