// Front-ends on the bus, against the real daemon: connections and their configuration, the
// per-client bag and its signal, query-id supersession, requests the daemon drops, and what
// happens when a client leaves.
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <future>

#include "orvexd/base/orvex_names.h"
#include "orvexd/client/dbus_forms.h"
#include "tests/support/collector.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::searchRequest;

constexpr const char* kBag =
    R"({"version": "7", "enabled": true, "warm_url": "${BASE_URL}/warm", "feedback_enabled": true})";

const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};

size_t occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

// Collects the versions of the BagDidLoad signals one client receives ("" for none).
struct BagSignals : testing::Collector<std::string> {
  void attach(OrvexClient& client) {
    client.onBagDidLoad([this](std::shared_ptr<const ORVBag> bag, std::optional<OrvexError>) {
      add(bag ? bag->version() : "");
    });
  }
};

TEST(ClientConnectionTest, ConfigurationBindsTheClientAndBagDidLoadReachesOnlyIt) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto configured = harness.client();
  auto bystander = harness.client();
  BagSignals configuredSignals;
  BagSignals bystanderSignals;
  configuredSignals.attach(*configured);
  bystanderSignals.attach(*bystander);

  auto endpoint = configured->configure(kGlance);
  ASSERT_TRUE(endpoint) << endpoint.error().message;
  EXPECT_EQ(endpoint.value(), "/com/zelmor/orvexd/Endpoint");
  ASSERT_TRUE(configuredSignals.waitForCount(1));
  EXPECT_EQ(configuredSignals.values(), std::vector<std::string>{"7"});

  // The other connection has not configured: it is bound to nothing and hears nothing.
  auto sessions = bystander->listSessions();
  ASSERT_TRUE(sessions);
  ASSERT_EQ(sessions.value().size(), 1u);
  EXPECT_EQ(sessions.value()[0].at("identifier"), "com.zelmor.glance");
  EXPECT_EQ(sessions.value()[0].at("agent"), "Glance/1");
  // The bus delivers the daemon's messages to a connection in the order they were sent, and the
  // client handles them in that order: once the answer to a call made after the configured
  // client's signal is handled, a signal that had reached the bystander would have been too.
  auto answered = std::make_shared<std::promise<void>>();
  bystander->requestAsync(searchRequest(1, "wea"), [answered](auto) { answered->set_value(); });
  ASSERT_EQ(answered->get_future().wait_for(30s), std::future_status::ready);
  EXPECT_EQ(bystanderSignals.size(), 0u);
  EXPECT_TRUE(harness.daemonLog().find("configuration must not be nil") != std::string::npos);

  // One process with two connections, logged once when the second was listed. (The bag as a
  // configured client sees it: orvexctl's bag command, in the introspection test.)
  const std::string tooMany = "too many connections 2 from pid " + std::to_string(getpid());
  EXPECT_TRUE(testing::eventually([&] { return occurrences(harness.daemonLog(), tooMany) == 1; }));
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.clientconnection"), 2);
}

TEST(ClientConnectionTest, AnInvalidConfigurationEndsTheCallAndAnyKindOfRequestIsChecked) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto client = harness.client();

  auto refused = client->configure({"com.zelmor.glance", ""});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().name, kOrvexErrorConnectionInvalidated);
  const std::string log = harness.daemonLog();
  EXPECT_NE(log.find("configuration requires identifier and agent"), std::string::npos);
  EXPECT_NE(log.find("invalid configuration, closing connection"), std::string::npos);
  EXPECT_NE(log.find("invalidated"), std::string::npos);

  // (A key of the wrong type: the D-Bus request fuzz target reads every type for every key.)
  // A configured client asking for a kind the daemon does not know gets no reply at all; the
  // connection keeps working.
  ASSERT_TRUE(client->configure(kGlance));
  // The refusal was recorded as the daemon's own error record, in the shared session.
  auto records = client->feedback();
  ASSERT_TRUE(records);
  EXPECT_NE(records.value().find("invalid configuration"), std::string::npos) << records.value();
  auto connection = harness.bus().connect();
  auto proxy = sdbus::createProxy(*connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
  try {
    int64_t queryId = 0;
    dbus::Dict reply, error;
    proxy->callMethod("Request")
        .onInterface("com.zelmor.orvexd.Daemon")
        .withTimeout(700ms)
        .withArguments(dbus::Dict{{"kind", sdbus::Variant(std::string("teleport"))},
                                  {"queryId", sdbus::Variant(int64_t{1})}})
        .storeResultsTo(queryId, reply, error);
    ADD_FAILURE() << "an unknown request kind was answered";
  } catch (const sdbus::Error& e) {
    EXPECT_EQ(e.getName(), "org.freedesktop.DBus.Error.Timeout");
  }
  EXPECT_TRUE(client->listSessions());
}

TEST(ClientConnectionTest, TheEndpointServesOnlyMoreResultsAndCardsOfKnownClients) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto client = harness.configuredClient(kGlance);

  ORVRequest card = searchRequest(3, "wea");
  card.kind = ORVRequestKind::kCard;
  auto answered = client->endpointRequest(card, kGlance);
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered.value().queryId, 3);
  EXPECT_TRUE(answered.value().error);  // answered by the client's state

  auto unknown = client->endpointRequest(card, {"com.zelmor.never-configured", "Glance/1"});
  ASSERT_TRUE(unknown);
  ASSERT_TRUE(unknown.value().error);
  EXPECT_EQ(unknown.value().error->code, 500);
  EXPECT_TRUE(unknown.value().error->reason.starts_with("invalid configuration "));

  // A search sent to the endpoint is dropped without a reply.
  client->setTimeout(700ms);
  auto dropped = client->endpointRequest(searchRequest(4, "wea"), kGlance);
  ASSERT_FALSE(dropped);
  // sd-bus names a call that timed out Timeout or NoReply, depending on where it waited.
  EXPECT_TRUE(dropped.error().name == "org.freedesktop.DBus.Error.Timeout" ||
              dropped.error().name == "org.freedesktop.DBus.Error.NoReply")
      << dropped.error().name;
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.daemonLog().find("new endpoint connection") != std::string::npos; }));
}

TEST(ClientConnectionTest, ASearchThatIsNotNewerIsAnsweredEmptyWithoutReachingTheState) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  // A Request sent right behind Configure, without waiting for its reply, is handled after it.
  {
    auto connection = harness.bus().connect();
    auto proxy = sdbus::createProxy(*connection, "com.zelmor.orvexd", "/com/zelmor/orvexd");
    proxy->callMethodAsync("Configure")
        .onInterface("com.zelmor.orvexd.Daemon")
        .withArguments(dbus::toDBus(kGlance))
        .uponReplyInvoke([](const sdbus::Error*, sdbus::ObjectPath) {});
    int64_t queryId = 0;
    dbus::Dict reply, error;
    proxy->callMethod("Request")
        .onInterface("com.zelmor.orvexd.Daemon")
        .withArguments(dbus::toDBus(searchRequest(1, "wea")))
        .storeResultsTo(queryId, reply, error);
    EXPECT_FALSE(error.contains("reason") &&
                 error.at("reason").get<std::string>() == "client state nil");
  }
  auto client = harness.configuredClient(kGlance);

  auto first = client->request(searchRequest(5, "wea"));
  ASSERT_TRUE(first);
  EXPECT_EQ(first.value().queryId, 5);
  // Whatever the state made of it, it got there.
  EXPECT_TRUE(first.value().reply || first.value().error);

  for (int64_t stale : {5, 4}) {
    auto again = client->request(searchRequest(stale, "wea"));
    ASSERT_TRUE(again);
    EXPECT_EQ(again.value().queryId, stale);
    EXPECT_FALSE(again.value().reply);
    EXPECT_FALSE(again.value().error);
  }
}

TEST(ClientConnectionTest, KnownClientsSurviveARestartWhenPersisted) {
  testing::DaemonHarness harness(kBag, {{"ORVPersistSessions", PlistValue(true)}});
  harness.start();
  {
    // The state is saved when the client's wait for the bag ends, before BagDidLoad is sent;
    // the listing is made on the same queue after it.
    auto client = harness.clientWithBag(kGlance);
    ASSERT_TRUE(client->listSessions());
  }
  ASSERT_EQ(harness.stop(), 0);
  harness.start();
  auto sessions = harness.client()->listSessions();
  ASSERT_TRUE(sessions);
  ASSERT_EQ(sessions.value().size(), 1u);
  EXPECT_EQ(sessions.value()[0].at("identifier"), "com.zelmor.glance");
  EXPECT_EQ(sessions.value()[0].at("agent"), "Glance/1");
}

TEST(ClientConnectionTest, AClientThatLeavesIsDroppedOnceItsSessionWasDealtWith) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  { auto client = harness.configuredClient(kGlance); }
  ASSERT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.glance.xcpinvalidation") == 1; }, 10s));
  ASSERT_TRUE(testing::eventually(
      [&] { return harness.daemonLog().find("on invalidation") != std::string::npos; }, 10s));
  const std::string log = harness.daemonLog();
  EXPECT_LT(log.find("invalidated"), log.find("on invalidation"));
}

}  // namespace
}  // namespace orvex
