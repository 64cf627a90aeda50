#include "orvexd/core/endpoint_service.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <map>
#include <span>
#include <vector>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/client/dbus_forms.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/input_limits.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/client_state.h"

namespace orvex {

namespace {

const OrvexLog& connectionLog() { return OrvexLogForCategory(kOrvexLogConnection); }

using EndpointReply = BusReply<int64_t, dbus::Dict, dbus::Dict>;

constexpr uint64_t kLongestWaitMs = 3'600'000;

// The images of a LoadImages call; none, and why in `problem`, when they are refused.
std::optional<std::vector<ImageDescription>> imagesFromForms(const std::vector<dbus::Dict>& forms,
                                                             const InputLimits& limits,
                                                             std::string& problem) {
  std::vector<ImageDescription> images;
  for (const auto& form : forms) {
    auto image = dbus::imageDescriptionFromDBus(form, &problem);
    if (!image) return std::nullopt;
    images.push_back(std::move(*image));
  }
  if (auto over = imagesProblem(images, limits)) {
    problem = *over;
    return std::nullopt;
  }
  return images;
}

// The images that fit in one reply, in key order; those that would take it over the bus's
// limits are left out, with an error log, so that the client still gets the others.
std::map<std::string, std::span<const uint8_t>> withinReplyLimit(const LoadedImages& loaded) {
  std::map<std::string, std::span<const uint8_t>> images;
  size_t size = 16;
  for (const auto& [key, body] : loaded) {
    const size_t entry = key.size() + body->size() + 16;
    if (size + entry > kMaxReplyBytes) {
      connectionLog().error("LoadImages reply over %lu bytes: leaving out image %@ of %lu bytes",
                            static_cast<unsigned long>(kMaxReplyBytes), key,
                            static_cast<unsigned long>(body->size()));
      continue;
    }
    size += entry;
    images.emplace(key, body->bytes());
  }
  return images;
}

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
  // The answer is written by hand, each image straight from its cached file's mapping, which
  // the reply holds until it is built.
  object_->registerMethod(
      kOrvexEndpointInterface, "LoadImages", "aa{sv}t", {"images", "timeout_ms"}, "a{say}",
      {"images"}, [weakSelf, &bus](sdbus::MethodCall call) {
        runBusHandler("Endpoint.LoadImages", [&] {
          auto self = weakSelf.lock();
          if (!self) return;
          const MonotonicTime arrival = self->assembly_.clock->monotonicNow();
          self->noteCaller(call);
          std::vector<dbus::Dict> forms;
          uint64_t timeoutMs = 0;
          call >> forms >> timeoutMs;
          BusCall reply(bus, std::move(call));
          std::string problem;
          auto images = imagesFromForms(forms, self->assembly_.inputLimits, problem);
          if (!images) {
            reply.fail(kOrvexErrorInvalidArgument, problem);
            return;
          }
          if (images->empty()) {
            reply.sendWith([](sdbus::MethodReply& message) { dbus::writeImages(message, {}); });
            return;
          }
          // The manager caps the wait; this only keeps the sum from overflowing.
          const MonotonicTime deadline =
              arrival + std::chrono::milliseconds(std::min<uint64_t>(timeoutMs, kLongestWaitMs));
          self->assembly_.workerPool->post(
              [self, reply, images = std::move(*images), deadline]() mutable {
                self->assembly_.clientStateManager->loadImages(
                    std::move(images), deadline, [reply](LoadedImages loaded) {
                      reply.sendWith([loaded = std::move(loaded)](sdbus::MethodReply& message) {
                        dbus::writeImages(message, withinReplyLimit(loaded));
                      });
                    });
              });
        });
      });
  object_->finishRegistration();
  connectionLog().debug("endpoint %@ exported", std::string(kOrvexEndpointPath));
}

}  // namespace orvex
