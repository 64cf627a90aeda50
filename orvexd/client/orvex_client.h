// OrvexClient: what a front-end links to talk to orvexd.
//
//   std::string error;
//   auto client = orvex::OrvexClient::connect(&error);
//   client->onBagDidLoad([](auto bag, auto bagError) { ... });
//   auto endpoint = client->configure({"com.example.search", "Search/1"});
//   ORVRequest request;
//   request.queryString = "weather";
//   request.queryId = 1;
//   auto answer = client->request(request);
//   if (answer && answer.value().reply) show(answer.value().reply->rawResponse);
//
// One client is one bus connection, so one client of the daemon: configure it before anything
// else, and keep it for as long as the front-end runs (the daemon ends the client's feedback
// session when the connection goes). The connection runs its own event-loop thread; BagDidLoad
// handlers run on it. Calls block until the daemon answers or the time-out passes, and may be
// made from any thread; the *Async variants return at once and answer on the event-loop thread.
//
// Failures never throw: each call returns its value or a ClientError (a D-Bus error name and
// message, such as com.zelmor.orvexd.Error.ConnectionInvalidated or
// org.freedesktop.DBus.Error.NoReply).
//
// A diagnostic tool uses the flusher control channel on the same connection: it sets its
// handlers, then states its intents; the daemon answers with signals to this connection only.
//
//   OrvexClient::FlusherHandlers handlers;
//   handlers.receivedFeedbackDescription = [](std::string description) { show(description); };
//   client->onFlusherSignals(std::move(handlers));
//   client->initiateFlusherIntent(kFlusherIntentReceivingStream);
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/model/image_description.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_reply.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/model/orv_session_configuration.h"

namespace orvex {

struct ClientError {
  std::string name;  // the D-Bus error name
  std::string message;
};

template <typename T>
class ClientResult {
 public:
  ClientResult(T value) : state_(std::move(value)) {}
  ClientResult(ClientError error) : state_(std::move(error)) {}
  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }
  // Only when ok() / only when not.
  const T& value() const { return std::get<0>(state_); }
  T& value() { return std::get<0>(state_); }
  const ClientError& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, ClientError> state_;
};

// The daemon's answer to a query.
struct QueryAnswer {
  int64_t queryId = 0;
  std::optional<ORVReply> reply;    // none: nothing to show (or the answer was superseded)
  std::optional<OrvexError> error;  // none: success
};

struct BagAnswer {
  std::shared_ptr<const ORVBag> bag;  // made for the configured user agent
  std::optional<OrvexError> error;
};

struct Empty {};

// A resource file the daemon keeps: an open read-only descriptor and its attributes, or (with no
// descriptor) the daemon's error.
struct ResourceFile {
  UniqueFd fd;
  ResourceFileAttributes attributes;
  std::optional<OrvexError> error;
};

// What a tool asks of the flusher control channel (InitiateConnectionWithIntent).
inline constexpr uint64_t kFlusherIntentSendingStream = 0;    // FlushedData with each upload
inline constexpr uint64_t kFlusherIntentReceivingStream = 1;  // each record clients report
inline constexpr uint64_t kFlusherIntentStopFlushing = 2;     // pause scheduled uploads; WorkDone
inline constexpr uint64_t kFlusherIntentDump = 3;  // upload every open session; WorkDone after

// Upload bodies are raw deflate; none inflates past this in the daemon's own limits.
inline constexpr size_t kMaxInflatedUploadBody = size_t{64} << 20;
// An upload body inflated: its JSON text. None (and the reason in `error`) when it is not raw
// deflate or inflates past `maxBytes`.
std::optional<std::string> inflateUploadBody(const std::vector<uint8_t>& body,
                                             size_t maxBytes = kMaxInflatedUploadBody,
                                             std::string* error = nullptr);

class OrvexClient {
 public:
  using BagHandler = std::function<void(std::shared_ptr<const ORVBag>, std::optional<OrvexError>)>;
  using Timeout = std::chrono::milliseconds;
  // The flusher control channel's signals; each handler may be empty.
  struct FlusherHandlers {
    std::function<void(std::vector<std::vector<uint8_t>> bodies)> flushedData;
    std::function<void(std::string description)> receivedFeedbackDescription;
    std::function<void()> workDone;
  };
  static constexpr Timeout kDefaultTimeout = std::chrono::seconds(25);

  // Connects to the session bus, or to the bus at `address`. Null (with the reason) on failure.
  static std::unique_ptr<OrvexClient> connect(std::string* error, const std::string& address = {});
  ~OrvexClient();
  OrvexClient(const OrvexClient&) = delete;
  OrvexClient& operator=(const OrvexClient&) = delete;

  // The client's unique name on the bus.
  std::string uniqueName() const;
  void setTimeout(Timeout timeout) { timeout_ = timeout; }

  // Called with every BagDidLoad the daemon sends this client; set it before configure().
  void onBagDidLoad(BagHandler handler);

  // Introduces the client; answers with the endpoint's object path.
  ClientResult<std::string> configure(const ORVSessionConfiguration& configuration);
  ClientResult<BagAnswer> bag();
  ClientResult<QueryAnswer> request(const ORVRequest& request);
  void requestAsync(const ORVRequest& request,
                    std::function<void(ClientResult<QueryAnswer>)> completion);
  // A more-results or card request through the endpoint.
  ClientResult<QueryAnswer> endpointRequest(const ORVRequest& request,
                                            const ORVSessionConfiguration& configuration);
  // Endpoint.LoadImages: the bytes of the images the daemon has cached or fetches within
  // `timeout`, by the "url" (or "id") string each was asked for with; the call itself may take
  // up to `timeout` plus the client's time-out.
  using Images = std::map<std::string, std::vector<uint8_t>>;
  ClientResult<Images> loadImages(const std::vector<ImageDescription>& images,
                                  std::chrono::milliseconds timeout);
  // Reports one feedback record; there is no answer.
  ClientResult<Empty> reportEvent(const std::string& event, int64_t queryId,
                                  const NBFeedback& feedback);
  // The records of the client's open feedback session, as the JSON array the daemon keeps.
  ClientResult<std::string> feedback();
  ClientResult<std::vector<std::map<std::string, std::string>>> listSessions();
  // A resource file by its bag key ("autofill_tld_whitelist", ...).
  ClientResult<ResourceFile> fileHandleAndAttributesForResource(const std::string& identifier);
  ClientResult<std::string> listenToFlusher();
  // Called with the flusher signals sent to this connection; set them before the first intent.
  void onFlusherSignals(FlusherHandlers handlers);
  // InitiateConnectionWithIntent on the flusher object (kFlusherIntent*); returns once the
  // daemon has taken the intent. Only for processes of the daemon's user (AccessDenied).
  ClientResult<Empty> initiateFlusherIntent(uint64_t intent);

  // Diagnostics.
  ClientResult<std::map<std::string, int64_t>> counters();
  ClientResult<std::string> daemonBag();
  // Runs a registered background activity now; InvalidArgument for an unknown one.
  ClientResult<Empty> runActivity(const std::string& identifier);
  // The subscription registry, as this process's application: publish its subscription (JSON
  // or "type=..., expires=..." with an optional domain), withdraw it, the JSON array the next
  // search carries, and the media store's account status (for the media store application only).
  ClientResult<Empty> publishSubscription(const std::string& information);
  ClientResult<Empty> withdrawSubscription();
  ClientResult<std::string> listSubscriptions();
  ClientResult<Empty> setAccountStatus(uint32_t status);

  // org.freedesktop.DBus.Peer.Ping on the daemon: the cost of a bare round trip.
  ClientResult<Empty> ping();

 private:
  // The bus connection and the proxies of the daemon's object, endpoint, flusher and
  // subscriptions objects.
  struct Bus;
  explicit OrvexClient(std::unique_ptr<Bus> bus);

  std::unique_ptr<Bus> bus_;
  Timeout timeout_ = kDefaultTimeout;
  // The handler and the configured user agent; set before the signal can matter.
  std::shared_ptr<struct OrvexClientSignals> signals_;
};

}  // namespace orvex
