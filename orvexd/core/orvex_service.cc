#include "orvexd/core/orvex_service.h"

#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/client/dbus_forms.h"
#include "orvexd/core/client_connection.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/input_limits.h"
#include "orvexd/platform/application_identity.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/bus_system_notifier.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& connectionLog() { return OrvexLogForCategory(kOrvexLogConnection); }
const OrvexLog& feedbackLog() { return OrvexLogForCategory(kOrvexLogFeedback); }

using Dict = dbus::Dict;

// The client's side of the connection: BagDidLoad, sent to the client's unique name only.
class BusClientIpc final : public ClientIpc {
 public:
  BusClientIpc(BusConnection& bus, std::shared_ptr<sdbus::IObject> object, std::string client,
               pid_t pid)
      : bus_(bus), object_(std::move(object)), client_(std::move(client)), pid_(pid) {}

  void bagDidLoad(std::shared_ptr<const ORVBag> bag, std::optional<OrvexError> error) override {
    std::string text = bag ? jsonTextForBus(bag->rawBag().dump()) : std::string();
    bus_.post([object = object_, client = client_, pid = pid_, text = std::move(text), error] {
      try {
        auto signal = object->createSignal(kOrvexDaemonInterface, "BagDidLoad");
        signal << text << dbus::toDBus(error);
        signal.setDestination(client);
        object->emitSignal(signal);
      } catch (const sdbus::Error& e) {
        connectionLog().error("(pid:%d) remote proxy error: %@", pid, e.getMessage());
      }
    });
  }

 private:
  BusConnection& bus_;
  std::shared_ptr<sdbus::IObject> object_;
  const std::string client_;
  const pid_t pid_;
};

// The Feedback reply stays well under what the bus carries in one message, however large the
// session: it holds the newest records whose JSON fits in this many bytes.
constexpr size_t kFeedbackReplyBytes = 16 * 1024 * 1024;

// The records as a JSON array, in their order, leaving out the oldest when they do not all fit
// in kFeedbackReplyBytes.
std::string feedbacksAsJson(const std::vector<OrvexFeedback>& feedbacks) {
  std::vector<std::string> newestFirst;
  size_t size = 2;  // the brackets
  for (auto feedback = feedbacks.rbegin(); feedback != feedbacks.rend(); ++feedback) {
    std::string record = feedback->dictionary().dump();
    if (size + record.size() + 1 > kFeedbackReplyBytes) break;
    size += record.size() + 1;
    newestFirst.push_back(std::move(record));
  }
  if (newestFirst.size() < feedbacks.size()) {
    feedbackLog().info("Feedback reply holds the newest %lu of %lu records",
                       static_cast<unsigned long>(newestFirst.size()),
                       static_cast<unsigned long>(feedbacks.size()));
  }
  std::string text;
  text.reserve(size);
  text.append("[");
  for (auto record = newestFirst.rbegin(); record != newestFirst.rend(); ++record) {
    if (text.size() > 1) text.append(",");
    text.append(*record);
  }
  text.append("]");
  return jsonTextForBus(text);
}

}  // namespace

OrvexService::OrvexService(Assembly& assembly, BusConnection& bus)
    : BusService(assembly, bus),
      callPool_(kCallThreads),
      queue_("com.zelmor.orvex.serviceQueue", *assembly.workerPool, *assembly.clock),
      limits_(assembly.inputLimits) {}

std::vector<std::shared_ptr<ClientConnection>> OrvexService::getClientConnections() {
  return queue_.syncResult([this] { return connections_; })
      .value_or(std::vector<std::shared_ptr<ClientConnection>>());
}

void OrvexService::start() {
  exportDaemonInterface();
  watchCallersLeaving([weakSelf = weak_from_this()](const std::string& name) {
    if (auto self = weakSelf.lock()) self->invalidate(name);
  });
}

std::shared_ptr<ClientConnection> OrvexService::connectionForCall(const sdbus::MethodCall& call) {
  const std::string sender = call.getSender();
  if (auto found = live_.find(sender); found != live_.end()) return found->second;
  pid_t pid = 0;
  try {
    pid = call.getCredsPid();
  } catch (const sdbus::Error& e) {
    connectionLog().error("cannot read the process of %@: %@", sender, e.getMessage());
  }
  return accept(sender, pid);
}

std::shared_ptr<ClientConnection> OrvexService::accept(const std::string& uniqueName, pid_t pid) {
  const auto clientId = applicationIdForProcess(pid);
  connectionLog().log("new connection from %@ (%d)", clientId.value_or("(null)"),
                      static_cast<int>(pid));
  auto remote = std::make_shared<BusClientIpc>(bus_, object_, uniqueName, pid);
  std::weak_ptr<OrvexService> weakSelf = weak_from_this();
  auto invalidateFromDaemon = [weakSelf, uniqueName, &bus = bus_] {
    bus.post([weakSelf, uniqueName] {
      if (auto self = weakSelf.lock()) self->invalidate(uniqueName);
    });
  };
  auto connection =
      ClientConnection::create(assembly_, std::move(remote), ClientPeer{uniqueName, pid, clientId},
                               std::move(invalidateFromDaemon), callPool_);
  live_[uniqueName] = connection;
  queue_.async([weakSelf, connection, pid] {
    auto self = weakSelf.lock();
    if (!self) return;
    self->connections_.push_back(connection);
    size_t count = 0;
    for (const auto& listed : self->connections_) count += listed->peer().pid == pid ? 1 : 0;
    if (count >= 2) {
      connectionLog().error("too many connections %lu from pid %d",
                            static_cast<unsigned long>(count), static_cast<int>(pid));
    }
  });
  OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterClientConnection);
  return connection;
}

void OrvexService::invalidate(const std::string& uniqueName) {
  const auto found = live_.find(uniqueName);
  if (found == live_.end()) return;
  auto connection = found->second;
  live_.erase(found);
  connection->invalidated();
  connectionLog().log("connection from %@ (%d) invalidated",
                      connection->peer().clientId.value_or("(null)"),
                      static_cast<int>(connection->peer().pid));
  std::weak_ptr<OrvexService> weakSelf = weak_from_this();
  // On the connection's own queue, behind every call it sent: its last records reach the session
  // before the session is flushed.
  connection->callQueue().async([weakSelf, connection] {
    connection->flushSessionInvalidation([weakSelf, connection](bool flushed) {
      OrvexLogForCategory(kOrvexLogSession)
          .debug("session %@ on invalidation", std::string(flushed ? "flushed" : "not flushed"));
      auto self = weakSelf.lock();
      if (!self) return;
      self->queue_.async([weakSelf, connection] {
        if (auto service = weakSelf.lock()) std::erase(service->connections_, connection);
      });
    });
  });
  if (auto state = connection->state()) {
    if (auto key = createCounterKey(state->clientShortName(), kORVCounterSuffixXCPInvalidation)) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, *key);
    }
  }
}

void OrvexService::exportDaemonInterface() {
  object_ = sdbus::createObject(bus_.connection(), kOrvexObjectPath);
  std::weak_ptr<OrvexService> weakSelf = weak_from_this();
  auto* object = object_.get();
  BusConnection& bus = bus_;

  // Finds (or accepts) the caller's connection and runs `job` with it on the client's queue, so
  // that one client's calls are handled in the order it sent them (a Request right behind its
  // Configure finds the client configured). Queries are only started there: nothing on that
  // queue waits for a bag or an answer, so their replies still come in parallel, and a slow step
  // of one client never holds up the bus thread or another client.
  // With `startHere`, a job that only starts work runs at once on the bus thread when the
  // client's queue is idle, which spares the hop to a worker and back on the common path; it
  // still takes the queue, so the order of the client's calls holds.
  auto dispatch = [weakSelf, object](auto job, bool startHere = false) {
    auto self = weakSelf.lock();
    if (!self) return;
    const auto* message = object->getCurrentlyProcessedMessage();
    auto connection = self->connectionForCall(static_cast<const sdbus::MethodCall&>(*message));
    if (startHere && connection->callQueue().trySync(
                         [&] { runBusHandler("client call", [&] { job(*connection); }); })) {
      return;
    }
    connection->callQueue().async([connection, job = std::move(job)]() mutable {
      runBusHandler("client call", [&] { job(*connection); });
    });
  };
  auto answerFromCache = [weakSelf, object](const ORVRequest& request, const QueryReply& reply) {
    auto self = weakSelf.lock();
    if (!self) return false;
    const auto* message = object->getCurrentlyProcessedMessage();
    return self->connectionForCall(static_cast<const sdbus::MethodCall&>(*message))
        ->requestFromCache(request, reply);
  };
  object_->registerMethod("Configure")
      .onInterface(kOrvexDaemonInterface)
      .withInputParamNames("configuration")
      .withOutputParamNames("endpoint")
      .implementedAs(
          [dispatch, &bus, limits = limits_](sdbus::Result<sdbus::ObjectPath>&& result, Dict form) {
            runBusHandler("Configure", [&] {
              BusReply<sdbus::ObjectPath> reply(bus, std::move(result));
              std::string problem;
              auto configuration = dbus::configurationFromDBus(form, &problem);
              if (!configuration) {
                reply.fail(kOrvexErrorInvalidArgument, problem);
                return;
              }
              if (auto over = configurationProblem(*configuration, limits)) {
                reply.fail(kOrvexErrorInvalidArgument, *over);
                return;
              }
              dispatch([reply, configuration = std::move(*configuration)](ClientConnection& c) {
                c.configure(configuration, [reply](std::optional<std::string> endpoint) {
                  if (endpoint) {
                    reply.send(sdbus::ObjectPath(*endpoint));
                  } else {
                    reply.fail(kOrvexErrorConnectionInvalidated, "invalid configuration");
                  }
                });
              });
            });
          });

  object_->registerMethod("Bag")
      .onInterface(kOrvexDaemonInterface)
      .withOutputParamNames("bag", "error")
      .implementedAs([dispatch, &bus](sdbus::Result<std::string, Dict>&& result) {
        runBusHandler("Bag", [&] {
          BusReply<std::string, Dict> reply(bus, std::move(result));
          dispatch([reply](ClientConnection& c) {
            c.bag([reply](std::shared_ptr<const ORVBag> bag, std::optional<OrvexError> error) {
              reply.sendFrom([text = bag ? jsonTextForBus(bag->rawBag().dump()) : std::string(),
                              error] { return std::make_tuple(text, dbus::toDBus(error)); });
            });
          });
        });
      });

  // Request is read and answered straight from and into the messages (no variants): it is the
  // call a front-end makes on every keystroke.
  object_->registerMethod(
      kOrvexDaemonInterface, "Request", "a{sv}", {"request"}, "xa{sv}a{sv}",
      {"query_id", "reply", "error"},
      [dispatch, answerFromCache, &bus, limits = limits_](sdbus::MethodCall call) {
        runBusHandler("Request", [&] {
          auto parsed = dbus::readRequest(call);
          BusCall reply(bus, std::move(call));
          if (parsed.problem.empty() && parsed.request) {
            if (auto over = requestProblem(*parsed.request, limits)) parsed.problem = *over;
          }
          if (!parsed.problem.empty()) {
            reply.fail(kOrvexErrorInvalidArgument, parsed.problem);
            return;
          }
          // A request of a kind the daemon does not know is still the client's call (it binds
          // the connection) but gets no reply.
          if (!parsed.request) {
            dispatch([](ClientConnection& c) { c.dropRequest(); });
            return;
          }
          QueryReply answer = [reply](int64_t queryId, std::optional<ORVReply> answer,
                                      std::optional<OrvexError> error) {
            reply.sendWith(
                [queryId, answer = std::move(answer), error](sdbus::MethodReply& message) {
                  dbus::writeQueryAnswer(message, queryId, answer, error);
                });
          };
          // A cache hit is answered here on the bus thread, as fast as the bus goes: no hop to
          // the client's queue and back.
          if (answerFromCache(*parsed.request, answer)) return;
          // Starting a query only builds its HTTP request and hands it to the network thread.
          dispatch([answer = std::move(answer), request = std::move(*parsed.request)](
                       ClientConnection& c) { c.request(request, answer); },
                   true);
        });
      });

  object_->registerMethod("ReportEvent")
      .onInterface(kOrvexDaemonInterface)
      .withInputParamNames("event", "query_id", "feedback")
      .withNoReply()
      .implementedAs([dispatch, limits = limits_](const std::string& event, int64_t queryId,
                                                  const std::string& text) {
        runBusHandler("ReportEvent", [&] {
          if (text.size() > limits.recordBytes) {
            feedbackLog().error("feedback record of %lu bytes refused, more than %lu",
                                static_cast<unsigned long>(text.size()),
                                static_cast<unsigned long>(limits.recordBytes));
            OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsRefused);
            return;
          }
          auto record = NBFeedback::fromDBusText(text);
          if (!record) {  // the reader has logged why
            OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterRecordsRefused);
            return;
          }
          dispatch([event, queryId, feedback = std::move(record).value()](ClientConnection& c) {
            c.reportEvent(event, queryId, feedback);
          });
        });
      });

  object_->registerMethod("Feedback")
      .onInterface(kOrvexDaemonInterface)
      .withInputParamNames("ignored")
      .withOutputParamNames("feedbacks", "error")
      .implementedAs(
          [dispatch, &bus](sdbus::Result<std::string, Dict>&& result, const std::string& ignored) {
            runBusHandler("Feedback", [&] {
              BusReply<std::string, Dict> reply(bus, std::move(result));
              dispatch([reply, ignored](ClientConnection& c) {
                c.feedback(ignored, [reply](std::vector<OrvexFeedback> feedbacks,
                                            std::optional<OrvexError> error) {
                  reply.sendFrom([text = feedbacksAsJson(feedbacks), error] {
                    return std::make_tuple(text, dbus::toDBus(error));
                  });
                });
              });
            });
          });

  object_->registerMethod("ListenToFlusher")
      .onInterface(kOrvexDaemonInterface)
      .withOutputParamNames("endpoint")
      .implementedAs([dispatch, &bus](sdbus::Result<sdbus::ObjectPath>&& result) {
        runBusHandler("ListenToFlusher", [&] {
          BusReply<sdbus::ObjectPath> reply(bus, std::move(result));
          dispatch([reply](ClientConnection& c) {
            c.listenToFlusher(
                [reply](std::string endpoint) { reply.send(sdbus::ObjectPath(endpoint)); });
          });
        });
      });

  object_->registerMethod("ListSessions")
      .onInterface(kOrvexDaemonInterface)
      .withOutputParamNames("sessions")
      .implementedAs([dispatch, &bus](sdbus::Result<std::vector<ClientSessionEntry>>&& result) {
        runBusHandler("ListSessions", [&] {
          BusReply<std::vector<ClientSessionEntry>> reply(bus, std::move(result));
          dispatch([reply](ClientConnection& c) {
            c.listSessions([reply](std::vector<ClientSessionEntry> sessions) {
              reply.send(std::move(sessions));
            });
          });
        });
      });

  object_->registerMethod("FileHandleAndAttributesForResource")
      .onInterface(kOrvexDaemonInterface)
      .withInputParamNames("identifier")
      .withOutputParamNames("handle", "attributes", "error")
      .implementedAs(
          [dispatch, &bus](sdbus::Result<std::vector<sdbus::UnixFd>, Dict, Dict>&& result,
                           const std::string& identifier) {
            runBusHandler("FileHandleAndAttributesForResource", [&] {
              BusReply<std::vector<sdbus::UnixFd>, Dict, Dict> reply(bus, std::move(result));
              dispatch([reply, identifier](ClientConnection& c) {
                c.fileHandleAndAttributesForResource(
                    identifier, [reply](UniqueFd fd, std::optional<ResourceFileAttributes> file,
                                        std::optional<OrvexError> error) {
                      // The descriptor is owned until the bus thread has sent it.
                      auto owned = std::make_shared<UniqueFd>(std::move(fd));
                      reply.sendFrom([owned, file = std::move(file), error] {
                        std::vector<sdbus::UnixFd> handles;
                        if (*owned) handles.emplace_back(owned->release(), sdbus::adopt_fd);
                        Dict attributeForm;
                        if (file) {
                          attributeForm["size"] = sdbus::Variant(file->size);
                          attributeForm["modified"] = sdbus::Variant(file->modified);
                          attributeForm["url"] = sdbus::Variant(file->url);
                        }
                        return std::make_tuple(std::move(handles), std::move(attributeForm),
                                               dbus::toDBus(error));
                      });
                    });
              });
            });
          });

  object_->registerSignal("BagDidLoad")
      .onInterface(kOrvexDaemonInterface)
      .withParameters<std::string, Dict>("bag", "error");
  object_->registerSignal(kOrvexSystemNotifySignal)
      .onInterface(kOrvexDaemonInterface)
      .withParameters<std::string>("name");
  object_->finishRegistration();
}

}  // namespace orvex
