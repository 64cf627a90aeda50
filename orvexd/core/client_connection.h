// ClientConnection: one client's connection to the daemon, and what it asks for.
//
// On the bus a client connection is the client's unique name (":1.42"); the OrvexService makes
// a ClientConnection at its first call and drops it once the bus reports the name gone. The
// connection keeps the client's configuration, binds the client to its ClientState the first
// time a valid configuration is there (and never to another), forwards queries to the state,
// keeps a search from being answered after a newer one was accepted, and routes the client's
// feedback into its session.
//
// Threading: the service runs every call of one client, queries included, on that client's queue
// (callQueue()), in the order the bus delivered them. A query is only started there: waiting for
// the bag or the back-end holds no thread, so a newer search is not held up by an older one.
// Replies are callbacks, which may run on any thread.
// currentQueryId_ is atomic and only grows; configuration_ and state_ are atomic properties
// guarded by mutex_.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/model/orv_session_configuration.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/query/client_state.h"
#include "orvexd/query/client_state_manager.h"

namespace orvex {

class Assembly;

// What the daemon can tell one client (its side of the connection).
class ClientIpc {
 public:
  virtual ~ClientIpc() = default;
  virtual void bagDidLoad(std::shared_ptr<const ORVBag> bag, std::optional<OrvexError> error) = 0;
};

// Who is at the other end.
struct ClientPeer {
  std::string uniqueName;  // the bus name, ":1.42"
  pid_t pid = 0;
  std::optional<std::string> clientId;  // see applicationIdForProcess
};

class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  // The endpoint's object path; none when the configuration was invalid and the connection
  // was invalidated.
  using ConfigureReply = std::function<void(std::optional<std::string> endpoint)>;
  using FeedbackReply =
      std::function<void(std::vector<OrvexFeedback> feedbacks, std::optional<OrvexError>)>;
  // A resource file: a read-only descriptor and its attributes, or the error.
  using FileHandleReply = std::function<void(
      UniqueFd fd, std::optional<ResourceFileAttributes> attributes, std::optional<OrvexError>)>;

  // `invalidate` ends the connection from the daemon's side (an invalid configuration).
  // The connection's calls run on `callPool`, apart from the components' pool, so that clients
  // waiting for a bag never hold up the components that deliver it.
  static std::shared_ptr<ClientConnection> create(Assembly& assembly,
                                                  std::shared_ptr<ClientIpc> remoteObject,
                                                  ClientPeer peer, std::function<void()> invalidate,
                                                  WorkerPool& callPool);
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  const ClientPeer& peer() const { return peer_; }
  const SerialQueue& callQueue() const { return callQueue_; }
  std::optional<ORVSessionConfiguration> configuration() const;
  std::shared_ptr<ClientState> state() const;

  // The client's calls.
  void configure(ORVSessionConfiguration configuration, ConfigureReply reply);
  void bag(BagReply reply);
  // A request whose reply is dropped gets none; `reply` may be empty (the client wants none).
  void request(ORVRequest request, QueryReply reply);
  // Answers a search at once from the query cache, on the calling thread, when that needs no
  // waiting: the connection's queue is idle (so the search still comes after the client's
  // earlier calls), the request carries its defaults and ClientState::searchFromCache() can
  // answer. False, with nothing done, otherwise; the request then goes the usual way.
  bool requestFromCache(const ORVRequest& request, const QueryReply& reply);
  // A request of a kind the daemon does not know: it binds the connection like any call, and
  // gets no reply.
  void dropRequest();
  void reportEvent(const std::string& event, int64_t queryId, FeedbackRecordPtr feedback);
  void feedback(const std::string& ignored, FeedbackReply reply);
  void listenToFlusher(std::function<void(std::string endpoint)> reply);
  void listSessions(std::function<void(std::vector<ClientSessionEntry>)> reply);
  void fileHandleAndAttributesForResource(const std::string& identifier, FileHandleReply reply);

  // The end of the connection: its session is dealt with, then `callback` says whether it was
  // flushed.
  void flushSessionInvalidation(std::function<void(bool)> callback);
  void flushSession(std::function<void()> completion);
  // Stops observing bag changes; the connection sends nothing more to the client.
  void invalidated();

 private:
  ClientConnection(Assembly& assembly, std::shared_ptr<ClientIpc> remoteObject, ClientPeer peer,
                   std::function<void()> invalidate, WorkerPool& callPool);

  void ensureState();
  void fillRequestDefaults(ORVRequest& request) const;
  void search(const ORVRequest& request, QueryReply reply);
  void reportEvent(FeedbackRecordPtr feedback, int64_t queryId);
  void bagChangeNotification(const Notification& notification);
  // A record that cannot be routed becomes a one-record error session, completed at once.
  void reportErrorSession(const std::string& reason);
  void handleCustomFeedback(const NBCustomFeedback& custom, FeedbackRecordPtr feedback,
                            int64_t queryId, std::function<void()> callback);

  Assembly& assembly_;
  const std::shared_ptr<ClientStateManager> clientStateManager_;
  const std::shared_ptr<ClientIpc> remoteObject_;
  const ClientPeer peer_;
  const std::function<void()> invalidate_;
  WorkerPool& callPool_;
  SerialQueue callQueue_;  // "com.zelmor.orvexd.clientconnection"
  std::atomic<int64_t> currentQueryId_{0};

  mutable std::mutex mutex_;
  std::optional<ORVSessionConfiguration> configuration_;
  std::shared_ptr<ClientState> state_;
  ObserverToken bagObserver_;
  bool invalidated_ = false;
};

}  // namespace orvex
