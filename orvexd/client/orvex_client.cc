#include "orvexd/client/orvex_client.h"

#include <sdbus-c++/sdbus-c++.h>

#include <mutex>

#include "orvexd/base/orvex_names.h"
#include "orvexd/client/dbus_forms.h"

namespace orvex {

namespace {

using Dict = dbus::Dict;

ClientError clientError(const sdbus::Error& error) {
  return ClientError{error.getName(), error.getMessage()};
}

// Runs one blocking call, turning a D-Bus error into a ClientError.
template <typename F>
auto guarded(F&& call) -> ClientResult<decltype(call())> {
  try {
    return call();
  } catch (const sdbus::Error& error) {
    return clientError(error);
  }
}

std::shared_ptr<const ORVBag> bagFromText(const std::string& text, const std::string& userAgent) {
  if (text.empty()) return nullptr;
  auto json = BagDictionary::parse(text, nullptr, false);
  if (json.is_discarded()) return nullptr;
  return ORVBag::initWithDictionary(std::move(json), userAgent);
}

QueryAnswer queryAnswer(int64_t queryId, const Dict& reply, const Dict& error) {
  return QueryAnswer{queryId, dbus::replyFromDBus(reply), dbus::errorFromDBus(error)};
}

}  // namespace

struct OrvexClientSignals {
  std::mutex mutex;
  OrvexClient::BagHandler handler;
  std::string userAgent;

  std::string agent() {
    std::lock_guard lock(mutex);
    return userAgent;
  }
};

std::unique_ptr<OrvexClient> OrvexClient::connect(std::string* error, const std::string& address) {
  try {
    auto connection = address.empty() ? sdbus::createSessionBusConnection()
                                      : sdbus::createSessionBusConnectionWithAddress(address);
    return std::unique_ptr<OrvexClient>(new OrvexClient(std::move(connection)));
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return nullptr;
  }
}

OrvexClient::OrvexClient(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)),
      daemon_(sdbus::createProxy(*connection_, kOrvexBusName, kOrvexObjectPath)),
      endpoint_(sdbus::createProxy(*connection_, kOrvexBusName, kOrvexEndpointPath)),
      signals_(std::make_shared<OrvexClientSignals>()) {
  daemon_->uponSignal("BagDidLoad")
      .onInterface(kOrvexDaemonInterface)
      .call([signals = signals_](const std::string& bag, const Dict& error) {
        BagHandler handler;
        {
          std::lock_guard lock(signals->mutex);
          handler = signals->handler;
        }
        if (handler) handler(bagFromText(bag, signals->agent()), dbus::errorFromDBus(error));
      });
  daemon_->finishRegistration();
  endpoint_->finishRegistration();
  connection_->enterEventLoopAsync();
}

OrvexClient::~OrvexClient() {
  connection_->leaveEventLoop();
  endpoint_.reset();
  daemon_.reset();
}

std::string OrvexClient::uniqueName() const { return connection_->getUniqueName(); }

void OrvexClient::onBagDidLoad(BagHandler handler) {
  std::lock_guard lock(signals_->mutex);
  signals_->handler = std::move(handler);
}

ClientResult<std::string> OrvexClient::configure(const ORVSessionConfiguration& configuration) {
  {
    std::lock_guard lock(signals_->mutex);
    signals_->userAgent = configuration.userAgent;
  }
  return guarded([&] {
    sdbus::ObjectPath endpoint;
    daemon_->callMethod("Configure")
        .onInterface(kOrvexDaemonInterface)
        .withTimeout(timeout_)
        .withArguments(dbus::toDBus(configuration))
        .storeResultsTo(endpoint);
    return std::string(endpoint);
  });
}

ClientResult<BagAnswer> OrvexClient::bag() {
  return guarded([&] {
    std::string bag;
    Dict error;
    daemon_->callMethod("Bag")
        .onInterface(kOrvexDaemonInterface)
        .withTimeout(timeout_)
        .storeResultsTo(bag, error);
    return BagAnswer{bagFromText(bag, signals_->agent()), dbus::errorFromDBus(error)};
  });
}

// Requests are written and read without variants: they are made on every keystroke.
ClientResult<QueryAnswer> OrvexClient::request(const ORVRequest& request) {
  return guarded([&]() -> QueryAnswer {
    auto call = daemon_->createMethodCall(kOrvexDaemonInterface, "Request");
    dbus::writeRequest(call, request);
    auto reply = daemon_->callMethod(call, timeout_);
    QueryAnswer answer;
    if (!dbus::readQueryAnswer(reply, answer.queryId, answer.reply, answer.error)) {
      throw sdbus::Error(kOrvexErrorInvalidArgument,
                         "the daemon's answer is not (x, a{sv}, a{sv})");
    }
    return answer;
  });
}

void OrvexClient::requestAsync(const ORVRequest& request,
                               std::function<void(ClientResult<QueryAnswer>)> completion) {
  try {
    auto call = daemon_->createMethodCall(kOrvexDaemonInterface, "Request");
    dbus::writeRequest(call, request);
    daemon_->callMethod(
        call,
        [completion](sdbus::MethodReply& reply, const sdbus::Error* error) {
          if (error != nullptr) {
            completion(clientError(*error));
            return;
          }
          QueryAnswer answer;
          if (!dbus::readQueryAnswer(reply, answer.queryId, answer.reply, answer.error)) {
            completion(ClientError{kOrvexErrorInvalidArgument,
                                   "the daemon's answer is not (x, a{sv}, a{sv})"});
            return;
          }
          completion(std::move(answer));
        },
        std::chrono::duration_cast<std::chrono::microseconds>(timeout_).count());
  } catch (const sdbus::Error& error) {
    completion(clientError(error));
  }
}

ClientResult<QueryAnswer> OrvexClient::endpointRequest(
    const ORVRequest& request, const ORVSessionConfiguration& configuration) {
  return guarded([&] {
    int64_t queryId = 0;
    Dict reply;
    Dict error;
    endpoint_->callMethod("Request")
        .onInterface(kOrvexEndpointInterface)
        .withTimeout(timeout_)
        .withArguments(dbus::toDBus(request), dbus::toDBus(configuration))
        .storeResultsTo(queryId, reply, error);
    return queryAnswer(queryId, reply, error);
  });
}

ClientResult<Empty> OrvexClient::reportEvent(const std::string& event, int64_t queryId,
                                             const NBFeedback& feedback) {
  return guarded([&] {
    daemon_->callMethod("ReportEvent")
        .onInterface(kOrvexDaemonInterface)
        .withArguments(event, queryId, feedback.dbusText())
        .dontExpectReply();
    return Empty{};
  });
}

ClientResult<std::string> OrvexClient::feedback() {
  return guarded([&] {
    std::string feedbacks;
    Dict error;
    daemon_->callMethod("Feedback")
        .onInterface(kOrvexDaemonInterface)
        .withTimeout(timeout_)
        .withArguments(std::string())
        .storeResultsTo(feedbacks, error);
    return feedbacks;
  });
}

ClientResult<std::vector<std::map<std::string, std::string>>> OrvexClient::listSessions() {
  return guarded([&] {
    std::vector<std::map<std::string, std::string>> sessions;
    daemon_->callMethod("ListSessions")
        .onInterface(kOrvexDaemonInterface)
        .withTimeout(timeout_)
        .storeResultsTo(sessions);
    return sessions;
  });
}

ClientResult<std::string> OrvexClient::listenToFlusher() {
  return guarded([&] {
    sdbus::ObjectPath endpoint;
    daemon_->callMethod("ListenToFlusher")
        .onInterface(kOrvexDaemonInterface)
        .withTimeout(timeout_)
        .storeResultsTo(endpoint);
    return std::string(endpoint);
  });
}

ClientResult<std::map<std::string, int64_t>> OrvexClient::counters() {
  return guarded([&] {
    std::map<std::string, int64_t> counters;
    daemon_->callMethod("GetCounters")
        .onInterface(kOrvexDiagnosticsInterface)
        .withTimeout(timeout_)
        .storeResultsTo(counters);
    return counters;
  });
}

ClientResult<std::string> OrvexClient::daemonBag() {
  return guarded([&] {
    std::string bag;
    daemon_->callMethod("GetBag")
        .onInterface(kOrvexDiagnosticsInterface)
        .withTimeout(timeout_)
        .storeResultsTo(bag);
    return bag;
  });
}

ClientResult<Empty> OrvexClient::ping() {
  return guarded([&] {
    daemon_->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer").withTimeout(timeout_);
    return Empty{};
  });
}

}  // namespace orvex
