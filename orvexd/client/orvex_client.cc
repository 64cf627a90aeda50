#include "orvexd/client/orvex_client.h"

#include <sdbus-c++/sdbus-c++.h>
#include <zlib.h>

#include <climits>
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

// A raw-deflate inflater; zlib keeps pointers into the stream, so it never moves.
class RawInflater {
 public:
  RawInflater() : ready_(inflateInit2(&stream_, -15) == Z_OK) {}
  ~RawInflater() {
    if (ready_) inflateEnd(&stream_);
  }
  RawInflater(const RawInflater&) = delete;
  RawInflater& operator=(const RawInflater&) = delete;

  bool ready() const { return ready_; }
  z_stream& stream() { return stream_; }

 private:
  z_stream stream_{};
  const bool ready_;
};

}  // namespace

std::optional<std::string> inflateUploadBody(const std::vector<uint8_t>& body, size_t maxBytes,
                                             std::string* error) {
  auto fail = [error](std::string reason) -> std::optional<std::string> {
    if (error != nullptr) *error = std::move(reason);
    return std::nullopt;
  };
  RawInflater inflater;
  if (!inflater.ready()) return fail("cannot start inflating");
  if (body.size() > UINT_MAX) return fail("the body is too large to inflate");
  z_stream& stream = inflater.stream();
  stream.next_in = const_cast<Bytef*>(body.data());
  stream.avail_in = static_cast<uInt>(body.size());
  std::string text;
  std::vector<char> buffer(size_t{64} << 10);
  for (;;) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    const int status = ::inflate(&stream, Z_NO_FLUSH);
    const size_t produced = buffer.size() - stream.avail_out;
    if (text.size() + produced > maxBytes) {
      return fail("the body inflates past " + std::to_string(maxBytes) + " bytes");
    }
    text.append(buffer.data(), produced);
    if (status == Z_STREAM_END) return text;
    // With a fresh output buffer, a buffer error means the input ran out mid-stream.
    if (status == Z_BUF_ERROR) return fail("the body ends inside its deflate stream");
    if (status != Z_OK) return fail(stream.msg != nullptr ? stream.msg : "not raw deflate");
  }
}

struct OrvexClientSignals {
  std::mutex mutex;
  OrvexClient::BagHandler handler;
  OrvexClient::FlusherHandlers flusher;
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
  std::unique_ptr<sdbus::IProxy> flusher;
  std::unique_ptr<sdbus::IProxy> subscriptions;

  ~Bus() {
    connection->leaveEventLoop();
    subscriptions.reset();
    flusher.reset();
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
    bus->flusher = sdbus::createProxy(*bus->connection, kOrvexBusName, kOrvexFlusherPath);
    bus->subscriptions =
        sdbus::createProxy(*bus->connection, kOrvexBusName, kOrvexSubscriptionsPath);
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
  // The handler in place when the signal is handled, called without the lock.
  auto flusherHandler = [signals = signals_](auto member) {
    std::lock_guard lock(signals->mutex);
    return signals->flusher.*member;
  };
  bus_->flusher->uponSignal("FlushedData")
      .onInterface(kOrvexFlusherInterface)
      .call([flusherHandler](std::vector<std::vector<uint8_t>> bodies) {
        if (auto handler = flusherHandler(&FlusherHandlers::flushedData)) {
          handler(std::move(bodies));
        }
      });
  bus_->flusher->uponSignal("ReceivedFeedbackDescription")
      .onInterface(kOrvexFlusherInterface)
      .call([flusherHandler](std::string description) {
        if (auto handler = flusherHandler(&FlusherHandlers::receivedFeedbackDescription)) {
          handler(std::move(description));
        }
      });
  bus_->flusher->uponSignal("WorkDone").onInterface(kOrvexFlusherInterface).call([flusherHandler] {
    if (auto handler = flusherHandler(&FlusherHandlers::workDone)) handler();
  });
  bus_->flusher->finishRegistration();
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

ClientResult<OrvexClient::Images> OrvexClient::loadImages(
    const std::vector<ImageDescription>& images, std::chrono::milliseconds timeout) {
  return guarded([&]() -> Images {
    std::vector<Dict> forms;
    for (const auto& image : images) forms.push_back(dbus::toDBus(image));
    auto call = bus_->endpoint->createMethodCall(kOrvexEndpointInterface, "LoadImages");
    call << forms << static_cast<uint64_t>(std::max<int64_t>(timeout.count(), 0));
    auto reply = bus_->endpoint->callMethod(call, timeout + timeout_);
    Images loaded;
    if (!dbus::readImages(reply, loaded)) {
      throw sdbus::Error(kOrvexErrorInvalidArgument, "the daemon's answer is not a{say}");
    }
    return loaded;
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

ClientResult<ResourceFile> OrvexClient::fileHandleAndAttributesForResource(
    const std::string& identifier) {
  return guarded([&] {
    auto answer = call<std::vector<sdbus::UnixFd>, Dict, Dict>(*bus_->daemon, kOrvexDaemonInterface,
                                                               "FileHandleAndAttributesForResource",
                                                               timeout_, identifier);
    auto& handles = std::get<0>(answer);
    // Named, not bound: clang 14 cannot capture a structured binding in the lambda below.
    const Dict& attributeForm = std::get<1>(answer);
    ResourceFile file;
    if (!handles.empty()) file.fd = UniqueFd(handles.front().release());
    const auto read = [&attributeForm](const char* key, auto& into) {
      const auto found = attributeForm.find(key);
      if (found == attributeForm.end()) return;
      try {
        into = found->second.get<std::remove_reference_t<decltype(into)>>();
      } catch (const sdbus::Error&) {
        // A value of another type reads as absent.
      }
    };
    read("size", file.attributes.size);
    read("modified", file.attributes.modified);
    read("url", file.attributes.url);
    file.error = dbus::errorFromDBus(std::get<2>(answer));
    return file;
  });
}

ClientResult<std::string> OrvexClient::listenToFlusher() {
  return resultOf<std::string, sdbus::ObjectPath>(*bus_->daemon, kOrvexDaemonInterface,
                                                  "ListenToFlusher", timeout_);
}

void OrvexClient::onFlusherSignals(FlusherHandlers handlers) {
  std::lock_guard lock(signals_->mutex);
  signals_->flusher = std::move(handlers);
}

// The daemon owes no reply, but sends one to a caller that waits for it: so the intent has been
// taken (a stream slot is this connection's) when the call returns, and a refusal is seen.
ClientResult<Empty> OrvexClient::initiateFlusherIntent(uint64_t intent) {
  return guarded([&] {
    (void)call<>(*bus_->flusher, kOrvexFlusherInterface, "InitiateConnectionWithIntent", timeout_,
                 intent);
    return Empty{};
  });
}

ClientResult<std::map<std::string, int64_t>> OrvexClient::counters() {
  return resultOf<std::map<std::string, int64_t>>(*bus_->daemon, kOrvexDiagnosticsInterface,
                                                  "GetCounters", timeout_);
}

ClientResult<std::string> OrvexClient::daemonBag() {
  return resultOf<std::string>(*bus_->daemon, kOrvexDiagnosticsInterface, "GetBag", timeout_);
}

ClientResult<Empty> OrvexClient::runActivity(const std::string& identifier) {
  return guarded([&] {
    (void)call<>(*bus_->daemon, kOrvexDiagnosticsInterface, "RunActivity", timeout_, identifier);
    return Empty{};
  });
}

ClientResult<Empty> OrvexClient::publishSubscription(const std::string& information) {
  return guarded([&] {
    (void)call<>(*bus_->subscriptions, kOrvexSubscriptionsInterface, "Publish", timeout_,
                 information);
    return Empty{};
  });
}

ClientResult<Empty> OrvexClient::withdrawSubscription() {
  return guarded([&] {
    (void)call<>(*bus_->subscriptions, kOrvexSubscriptionsInterface, "Withdraw", timeout_);
    return Empty{};
  });
}

ClientResult<std::string> OrvexClient::listSubscriptions() {
  return resultOf<std::string>(*bus_->subscriptions, kOrvexSubscriptionsInterface, "List",
                               timeout_);
}

ClientResult<Empty> OrvexClient::setAccountStatus(uint32_t status) {
  return guarded([&] {
    (void)call<>(*bus_->subscriptions, kOrvexSubscriptionsInterface, "SetAccountStatus", timeout_,
                 status);
    return Empty{};
  });
}

ClientResult<Empty> OrvexClient::ping() {
  return guarded([&] {
    bus_->daemon->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer").withTimeout(timeout_);
    return Empty{};
  });
}

}  // namespace orvex
