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

// The results of `method` on `interface`, called with `args`; a D-Bus error throws.
template <typename... Results>
std::tuple<Results...> call(sdbus::IProxy& proxy, const char* interface, const char* method,
                            OrvexClient::Timeout timeout, const auto&... args) {
  std::tuple<Results...> results;
  std::apply(
      [&](Results&... out) {
        proxy.callMethod(method)
            .onInterface(interface)
            .withTimeout(timeout)
            .withArguments(args...)
            .storeResultsTo(out...);
      },
      results);
  return results;
}

// The one result of a call, received as a Wire; a D-Bus error becomes the ClientError.
template <typename Result, typename Wire = Result>
ClientResult<Result> resultOf(sdbus::IProxy& proxy, const char* interface, const char* method,
                              OrvexClient::Timeout timeout, const auto&... args) {
  return guarded(
      [&] { return Result(std::get<0>(call<Wire>(proxy, interface, method, timeout, args...))); });
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

struct OrvexClient::Bus {
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IProxy> daemon;
  std::unique_ptr<sdbus::IProxy> endpoint;

  ~Bus() {
    connection->leaveEventLoop();
    endpoint.reset();
    daemon.reset();
  }
};

std::unique_ptr<OrvexClient> OrvexClient::connect(std::string* error, const std::string& address) {
  try {
    auto bus = std::make_unique<Bus>();
    bus->connection = address.empty() ? sdbus::createSessionBusConnection()
                                      : sdbus::createSessionBusConnectionWithAddress(address);
    bus->daemon = sdbus::createProxy(*bus->connection, kOrvexBusName, kOrvexObjectPath);
    bus->endpoint = sdbus::createProxy(*bus->connection, kOrvexBusName, kOrvexEndpointPath);
    return std::unique_ptr<OrvexClient>(new OrvexClient(std::move(bus)));
  } catch (const sdbus::Error& e) {
    if (error != nullptr) *error = e.getName() + ": " + e.getMessage();
    return nullptr;
  }
}

OrvexClient::OrvexClient(std::unique_ptr<Bus> bus)
    : bus_(std::move(bus)), signals_(std::make_shared<OrvexClientSignals>()) {
  bus_->daemon->uponSignal("BagDidLoad")
      .onInterface(kOrvexDaemonInterface)
      .call([signals = signals_](const std::string& bag, const Dict& error) {
        BagHandler handler;
        {
          std::lock_guard lock(signals->mutex);
          handler = signals->handler;
        }
        if (handler) handler(bagFromText(bag, signals->agent()), dbus::errorFromDBus(error));
      });
  bus_->daemon->finishRegistration();
  bus_->endpoint->finishRegistration();
  bus_->connection->enterEventLoopAsync();
}

OrvexClient::~OrvexClient() = default;

std::string OrvexClient::uniqueName() const { return bus_->connection->getUniqueName(); }

void OrvexClient::onBagDidLoad(BagHandler handler) {
  std::lock_guard lock(signals_->mutex);
  signals_->handler = std::move(handler);
}

ClientResult<std::string> OrvexClient::configure(const ORVSessionConfiguration& configuration) {
  {
    std::lock_guard lock(signals_->mutex);
    signals_->userAgent = configuration.userAgent;
  }
  return resultOf<std::string, sdbus::ObjectPath>(*bus_->daemon, kOrvexDaemonInterface, "Configure",
                                                  timeout_, dbus::toDBus(configuration));
}

ClientResult<BagAnswer> OrvexClient::bag() {
  return guarded([&] {
    auto [bag, error] =
        call<std::string, Dict>(*bus_->daemon, kOrvexDaemonInterface, "Bag", timeout_);
    return BagAnswer{bagFromText(bag, signals_->agent()), dbus::errorFromDBus(error)};
  });
}

// Requests are written and read without variants: they are made on every keystroke.
ClientResult<QueryAnswer> OrvexClient::request(const ORVRequest& request) {
  return guarded([&]() -> QueryAnswer {
    auto call = bus_->daemon->createMethodCall(kOrvexDaemonInterface, "Request");
    dbus::writeRequest(call, request);
    auto reply = bus_->daemon->callMethod(call, timeout_);
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
    auto call = bus_->daemon->createMethodCall(kOrvexDaemonInterface, "Request");
    dbus::writeRequest(call, request);
    bus_->daemon->callMethod(
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
    auto [queryId, reply, error] =
        call<int64_t, Dict, Dict>(*bus_->endpoint, kOrvexEndpointInterface, "Request", timeout_,
                                  dbus::toDBus(request), dbus::toDBus(configuration));
    return QueryAnswer{queryId, dbus::replyFromDBus(reply), dbus::errorFromDBus(error)};
  });
}

ClientResult<Empty> OrvexClient::reportEvent(const std::string& event, int64_t queryId,
                                             const NBFeedback& feedback) {
  return guarded([&] {
    bus_->daemon->callMethod("ReportEvent")
        .onInterface(kOrvexDaemonInterface)
        .withArguments(event, queryId, feedback.dbusText())
        .dontExpectReply();
    return Empty{};
  });
}

ClientResult<std::string> OrvexClient::feedback() {
  return guarded([&] {
    auto [feedbacks, error] = call<std::string, Dict>(*bus_->daemon, kOrvexDaemonInterface,
                                                      "Feedback", timeout_, std::string());
    return feedbacks;
  });
}

ClientResult<std::vector<std::map<std::string, std::string>>> OrvexClient::listSessions() {
  return resultOf<std::vector<std::map<std::string, std::string>>>(
      *bus_->daemon, kOrvexDaemonInterface, "ListSessions", timeout_);
}

ClientResult<std::string> OrvexClient::listenToFlusher() {
  return resultOf<std::string, sdbus::ObjectPath>(*bus_->daemon, kOrvexDaemonInterface,
                                                  "ListenToFlusher", timeout_);
}

ClientResult<std::map<std::string, int64_t>> OrvexClient::counters() {
  return resultOf<std::map<std::string, int64_t>>(*bus_->daemon, kOrvexDiagnosticsInterface,
                                                  "GetCounters", timeout_);
}

ClientResult<std::string> OrvexClient::daemonBag() {
  return resultOf<std::string>(*bus_->daemon, kOrvexDiagnosticsInterface, "GetBag", timeout_);
}

ClientResult<Empty> OrvexClient::ping() {
  return guarded([&] {
    bus_->daemon->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer").withTimeout(timeout_);
    return Empty{};
  });
}

}  // namespace orvex
