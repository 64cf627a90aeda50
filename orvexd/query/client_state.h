// ClientState: everything the daemon keeps for one client identifier, and the client's queries.
//
// A state holds the client's user agent, its own view of the bag (made for that user agent),
// its GUID controller and feedback session manager (the daemon's shared ones, or private ones
// when sessions are not shared), and the time of its last network request. States are made by
// the ClientStateManager, one per identifier, which drops those left unused for a day.
//
// Waiting for the first bag never holds a thread: a call that needs a bag the state does not
// have yet (bag(agent, reply), search) leaves a continuation behind and returns. The
// continuation runs exactly once, on the worker pool, when the bag arrives, when its fetch fails
// or when kBagWaitTimeout has passed on the Assembly's clock, whichever comes first; however
// many clients wait, each is answered within that second.
//
// Threading: every operation may be called from any thread. The properties are atomic: each
// read or write takes `mutex_`, which guards configuration_, userAgent_, bag_,
// lastNetworkRequest_, bagObserver_ and bagWaiters_; nothing blocks while holding it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/model/orv_reply.h"
#include "orvexd/model/orv_request.h"
#include "orvexd/model/orv_session_configuration.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/query/query_feedback.h"

namespace orvex {

class Assembly;
class CachedResultSet;
class GUIDController;
class QueryCache;
class Uuid;
class SessionManager;

// Answers a query: the request's query id, the answer (none when there is nothing to show) and
// the error (none on success).
using QueryReply =
    std::function<void(int64_t queryId, std::optional<ORVReply>, std::optional<OrvexError>)>;
using BagReply = std::function<void(std::shared_ptr<const ORVBag>, std::optional<OrvexError>)>;

class ClientState : public std::enable_shared_from_this<ClientState> {
 public:
  // How long bag() waits for the first bag, and how long a connection stays warm.
  static constexpr Duration kBagWaitTimeout = std::chrono::seconds(1);
  static constexpr Duration kWarmInterval = std::chrono::seconds(30);

  static std::shared_ptr<ClientState> initWithIdentifier(std::string identifier,
                                                         Assembly& assembly);
  ~ClientState();
  ClientState(const ClientState&) = delete;
  ClientState& operator=(const ClientState&) = delete;

  const std::string& identifier() const { return identifier_; }
  const std::optional<std::string>& clientShortName() const { return clientShortName_; }
  const std::shared_ptr<GUIDController>& guidController() const { return guidController_; }
  const std::shared_ptr<SessionManager>& sessionManager() const { return sessionManager_; }
  QueryCache* queryCache() const { return queryCache_.get(); }

  std::optional<ORVSessionConfiguration> configuration() const;
  void setConfiguration(ORVSessionConfiguration configuration);
  std::string userAgent() const;
  void setUserAgent(std::string userAgent);
  std::shared_ptr<const ORVBag> bag() const;
  std::optional<WallTime> lastNetworkRequest() const;

  // Binds the client's user agent (a new one replaces the bag's view and empties the query
  // cache) and answers with the bag, waiting up to kBagWaitTimeout for the first one.
  void bag(const std::string& userAgent, const BagReply& reply);
  // Calls `continuation` once with whether the state holds a bag: at once when it does (or has
  // no user agent to want one for), else when the first bag comes, its fetch fails or
  // kBagWaitTimeout passes. A bag that is missing is asked of the bag controller first.
  using BagContinuation = std::function<void(bool haveBag)>;
  void ensureBag(BagContinuation continuation);
  // The client shows its search view: open a connection to the back-end unless one was used
  // within kWarmInterval or the bag is being fetched.
  void warm();
  void markNetworkRequest();
  void setPerformedSearch();

  // The queries. Each answers `reply` exactly once.
  void search(const ORVRequest& request, QueryReply reply);
  void zeroKeyword(const ORVRequest& request, QueryReply reply);
  void moreResults(const ORVRequest& request, QueryReply reply);
  void card(const ORVRequest& request, QueryReply reply);
  void lookup(const ORVRequest& request, QueryReply reply);
  void flightSearch(const ORVRequest& request, const QueryReply& reply);
  void flightLookup(const ORVRequest& request, const QueryReply& reply);
  // A search answered at once from the query cache, as search() would answer it, for callers
  // that must not wait (the bus thread): the bag is in and enabled, the query long enough, and
  // the cache holds an answer without waiting for its queue. False, having done nothing and
  // answered nothing, otherwise.
  bool searchFromCache(const ORVRequest& request, const QueryReply& reply);

  // The reply to `request`: its scale, the maps session entity and, when the client asked for a
  // verbose reply, the HTTP exchange.
  ORVReply makeReply(const ORVRequest& request, const HttpRequest* httpRequest,
                     const HttpResponse* httpResponse) const;
  // Keeps a search answer in the query cache (answers with status "ERROR" are not kept), sharing
  // the parsed answer. `serialized` is the answer as response->dump() writes it.
  void cacheResponse(const std::shared_ptr<const nlohmann::json>& response, std::string serialized,
                     HttpRequest request, const std::string& input, const std::string& uuid);

 private:
  ClientState(std::string identifier, Assembly& assembly);
  // One call waiting for the first bag; whichever ending comes first sets `finished`.
  struct BagWaiter {
    explicit BagWaiter(BagContinuation then) : continuation(std::move(then)) {}
    BagContinuation continuation;
    std::atomic<bool> finished{false};
    TimerHandle deadline;  // the kBagWaitTimeout firing; written under mutex_
  };
  static void finishBagWait(BagWaiter& waiter, bool haveBag);
  // The waiter's second has passed: it stops waiting, with whatever the state holds now.
  void bagWaitTimedOut(const std::shared_ptr<BagWaiter>& waiter);
  void bagChangeNotification(const Notification& notification);

  // What a query logs when its bag is missing or disabled.
  struct BagCheckLogs {
    const char* fetchFailed;  // may name the query string with %@
    const char* disabled;
  };
  std::shared_ptr<const ORVBag> bagForQuery(bool haveBag, const ORVRequest& request,
                                            const QueryReply& reply, const QueryFeedback& feedback,
                                            const BagCheckLogs& logs) const;
  // 1 (no location) for the messages client, else 0.
  unsigned fieldMask() const;
  QueryFeedback feedbackFor(const ORVRequest& request) const;
  // Sends the query's request (logging it when asked), or answers that none could be made.
  void send(const ORVRequest& request, std::optional<HttpRequest> httpRequest,
            std::optional<std::string> input, std::shared_ptr<const ORVBag> bag, QueryReply reply,
            bool logRequest);
  // A query that needs the client's bag, enabled: it logs its opening line, and once the bag is
  // in, its dispatch line, then sends what `make` builds from the bag.
  struct EnabledBagQuery {
    const char* openingLog;  // names the client and the reply
    BagCheckLogs bag;
    const char* dispatchLog;
    bool logRequest;
  };
  using RequestMaker =
      std::function<std::optional<HttpRequest>(const ORVBag& bag, const Uuid& userGuid)>;
  static void answerFlights(const ORVRequest& request, const nlohmann::json& flights,
                            const QueryReply& reply);
  void sendWithEnabledBag(const EnabledBagQuery& kind, const ORVRequest& request, QueryReply reply,
                          RequestMaker make);
  // The search flow, once the bag is in (or is not coming).
  void searchWithBag(bool haveBag, const ORVRequest& request, QueryReply reply);
  bool serveFromCache(const ORVRequest& request, const ORVBag& bag, const QueryReply& reply,
                      const QueryFeedback& feedback);
  void answerFromCache(const ORVRequest& request, const CachedResultSet& cached, const ORVBag& bag,
                       const QueryReply& reply, const QueryFeedback& feedback);
  // The log line and keystroke count of every search.
  void noteSearch(const ORVRequest& request, bool hasReply) const;

  Assembly& assembly_;
  // Set at creation, read-only afterwards.
  const std::string identifier_;
  const std::optional<std::string> clientShortName_;
  std::shared_ptr<GUIDController> guidController_;
  std::shared_ptr<SessionManager> sessionManager_;
  std::unique_ptr<QueryCache> queryCache_;  // none with "ORVNoQueryCache"

  mutable std::mutex mutex_;
  std::optional<ORVSessionConfiguration> configuration_;
  std::string userAgent_;
  std::shared_ptr<const ORVBag> bag_;
  std::optional<WallTime> lastNetworkRequest_;
  ObserverToken bagObserver_;  // set once, by the first ensureBag() that needs a bag
  std::vector<std::shared_ptr<BagWaiter>> bagWaiters_;  // calls waiting for the first bag
};

}  // namespace orvex
