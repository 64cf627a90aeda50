// The shipped interface description against the running daemon, member by member, and orvexctl
// against the running daemon with the reference back-end behind it.
#include <expat.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/model/nb_feedback.h"
#include "tests/support/daemon_harness.h"
#include "tests/support/private_bus.h"
#include "tests/support/reference_backend.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

// One interface as comparable lines, by member: "method Request" -> its arguments and
// annotations in order ("arg in a{sv} request", "annotation org...NoReply=true").
using InterfaceShape = std::map<std::string, std::vector<std::string>>;
using NodeShape = std::map<std::string, InterfaceShape>;  // by interface name

// The interfaces each node element declares itself, by node name ("" for the document's own),
// without the standard org.freedesktop.DBus ones; read from expat's events as they come.
// Throws on text that is not well-formed.
std::map<std::string, NodeShape> shapesOf(const std::string& text) {
  struct Reader {
    std::map<std::string, NodeShape> shapes;
    std::vector<std::string> nodes;  // the open node elements' names
    size_t depth = 0, interfaceDepth = 0;
    std::string interface, memberKind, member;  // interface is "" when skipped or closed
  } reader;
  const CHandle<std::remove_pointer_t<XML_Parser>, &XML_ParserFree> parser(
      XML_ParserCreate("UTF-8"));
  XML_SetUserData(parser.get(), &reader);
  XML_SetElementHandler(
      parser.get(),
      [](void* data, const XML_Char* name, const XML_Char** attributes) {
        auto& r = *static_cast<Reader*>(data);
        std::map<std::string, std::string> a;
        for (; *attributes != nullptr; attributes += 2) a[attributes[0]] = attributes[1];
        const std::string element = name;
        const size_t depth = ++r.depth;
        if (element == "node") r.nodes.push_back(r.nodes.empty() ? "" : a["name"]);
        if (element == "interface") {
          r.interface = a["name"].starts_with("org.freedesktop.DBus.") ? "" : a["name"];
          r.interfaceDepth = depth;
          if (!r.interface.empty()) (void)r.shapes[r.nodes.back()][r.interface];
        } else if (!r.interface.empty() && depth == r.interfaceDepth + 1) {
          r.memberKind = element;
          r.member = element + " " + a["name"];
          (void)r.shapes[r.nodes.back()][r.interface][r.member];
        } else if (!r.interface.empty() && depth == r.interfaceDepth + 2) {
          std::string line = element + " " + a["name"];
          if (element == "arg") {
            // Signal arguments are always outgoing, whether or not the XML says so.
            std::string direction = a["direction"];
            if (direction.empty()) direction = r.memberKind == "method" ? "in" : "out";
            line = "arg " + direction + " " + a["type"] + " " + a["name"];
          } else if (element == "annotation") {
            line += "=" + a["value"];
          }
          r.shapes[r.nodes.back()][r.interface][r.member].push_back(line);
        }
      },
      [](void* data, const XML_Char* name) {
        auto& r = *static_cast<Reader*>(data);
        if (std::string_view(name) == "interface") r.interface.clear();
        if (std::string_view(name) == "node") r.nodes.pop_back();
        --r.depth;
      });
  if (XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) !=
      XML_STATUS_OK) {
    throw std::runtime_error(
        std::string("introspection XML: ").append(XML_ErrorString(XML_GetErrorCode(parser.get()))));
  }
  return std::move(reader.shapes);
}

class RunningDaemonTest : public ::testing::Test {
 protected:
  RunningDaemonTest()
      : harness(R"({"version": "7", "enabled": true, "search_url": "${BASE_URL}/search",
                   "feedback_url": "${BASE_URL}/feedback"})") {
    harness.start();
    connection = harness.bus().connect();
  }
  ~RunningDaemonTest() override { EXPECT_EQ(harness.stop(), 0); }

  std::string introspect(const std::string& path) {
    auto proxy = sdbus::createProxy(*connection, "com.zelmor.orvexd", path);
    std::string xml;
    proxy->callMethod("Introspect")
        .onInterface("org.freedesktop.DBus.Introspectable")
        .storeResultsTo(xml);
    return xml;
  }

  testing::DaemonHarness harness;
  const std::filesystem::path& dir = harness.directory();
  const testing::PrivateBus& bus = harness.bus();
  testing::ReferenceBackend* backend = &harness.backend();
  std::unique_ptr<sdbus::IConnection> connection;
};

TEST_F(RunningDaemonTest, ShippedInterfaceXmlMatchesWhatTheDaemonServes) {
  auto shipped = shapesOf(testing::readTextFile(ORVEXD_INTERFACE_XML));
  // Both sides name the interfaces they must: a missing one is not an "equal" empty shape.
  EXPECT_EQ(shipped[""].size(), 2u);
  EXPECT_TRUE(shipped[""].count("com.zelmor.orvexd.Daemon"));
  EXPECT_TRUE(shipped[""].count("com.zelmor.orvexd.Diagnostics"));
  EXPECT_TRUE(shipped["Endpoint"].count("com.zelmor.orvexd.Endpoint"));
  EXPECT_TRUE(shipped["Flusher"].count("com.zelmor.orvexd.Flusher"));
  EXPECT_TRUE(shipped["Subscriptions"].count("com.zelmor.orvexd.Subscriptions"));
  // gtest prints both shapes, member by member, when they differ.
  EXPECT_EQ(shapesOf(introspect("/com/zelmor/orvexd"))[""], shipped[""]);
  EXPECT_EQ(shapesOf(introspect("/com/zelmor/orvexd/Endpoint"))[""], shipped["Endpoint"]);
  EXPECT_EQ(shapesOf(introspect("/com/zelmor/orvexd/Flusher"))[""], shipped["Flusher"]);
  EXPECT_EQ(shapesOf(introspect("/com/zelmor/orvexd/Subscriptions"))[""], shipped["Subscriptions"]);
}

struct CtlRun {
  int status = -1;
  std::string out;
  std::string err;
};

class OrvexctlTest : public RunningDaemonTest {
 protected:
  // Runs orvexctl on the private bus with `arguments`, `input` on its standard input.
  CtlRun ctl(std::vector<std::string> arguments, const std::string& input = "") {
    const auto in = dir / "ctl.in";
    const auto out = dir / "ctl.out";
    const auto err = dir / "ctl.err";
    std::ofstream(in) << input;
    std::vector<std::string> argv{"/bin/sh",
                                  "-c",
                                  "exec \"$0\" \"$@\" <\"" + in.string() + "\" >\"" + out.string() +
                                      "\" 2>\"" + err.string() + "\"",
                                  ORVEXCTL_BINARY,
                                  "--address",
                                  bus.address()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    testing::ChildProcess process(argv);
    CtlRun run;
    run.status = process.waitForExit(30s).value_or(-1);
    run.out = testing::readTextFile(out);
    run.err = testing::readTextFile(err);
    return run;
  }
};

TEST_F(OrvexctlTest, CommandsAnswerFromTheDaemonInTextAndJson) {
  // configure waits for BagDidLoad and shows the bag the back-end serves.
  auto run = ctl({"configure"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("bag version 7, enabled"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("search_url: " + backend->baseUrl() + "/search"), std::string::npos)
      << run.out;
  run = ctl({"--json", "configure"});
  ASSERT_EQ(run.status, 0) << run.err;
  auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["endpoint"], "/com/zelmor/orvexd/Endpoint");
  EXPECT_EQ(json["bagDidLoad"]["bag"]["version"], "7");

  run = ctl({"bag", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["search_url"], backend->baseUrl() + "/search");  // the raw bag, as served

  // sessions lists the clients configured so far, this one included.
  run = ctl({"--identifier", "com.example.viewer", "--agent", "Viewer/2", "--json", "sessions"});
  ASSERT_EQ(run.status, 0) << run.err;
  json = nlohmann::json::parse(run.out);
  ASSERT_TRUE(json.is_array());
  const auto listed = [&](const std::string& identifier, const std::string& agent) {
    return std::any_of(json.begin(), json.end(), [&](const auto& entry) {
      return entry["identifier"] == identifier && (agent.empty() || entry["agent"] == agent);
    });
  };
  EXPECT_TRUE(listed("com.example.viewer", "Viewer/2") && listed("com.zelmor.orvexctl", ""))
      << run.out;

  // counters: only those under the prefix.
  run = ctl({"--json", "counters", "com.zelmor.orvexd.launch"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out), nlohmann::json({{"com.zelmor.orvexd.launch", 1}}));

  // Whatever a search gets today, the JSON form says so.
  run = ctl({"--json", "search", "weather", "--query-id", "4"});
  EXPECT_TRUE(run.status == 0 || run.status == 1) << run.err;
  json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["queryId"], 4);
  EXPECT_TRUE(json.contains("reply") && json.contains("error")) << run.out;
}

TEST_F(OrvexctlTest, ReportsValidRecordsAndRefusesBadInputWithUsageStatus) {
  NBStartSearchFeedback record;
  record.input = "weather";
  auto run = ctl({"report", "-", "--event", "searchStarted"}, record.dbusText());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("reported NBStartSearchFeedback (event \"searchStarted\""),
            std::string::npos)
      << run.out;

  // A record that does not parse never reaches the daemon.
  run = ctl({"report", "-"}, R"({"$class": "NBNoSuchFeedback"})");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("standard input is not a feedback record"), std::string::npos) << run.err;

  // Usage errors.
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"frobnicate"}, {"search"}}) {
    run = ctl(arguments);
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find("orvexctl --help"), std::string::npos) << run.err;
  }
}

TEST(OrvexctlWithoutDaemon, NamesTheBusErrorAndHintsThatTheDaemonIsNotRunning) {
  testing::TempDir busDir;
  testing::PrivateBus bus{busDir.path()};
  const auto err = busDir / "err";
  testing::ChildProcess process({"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>\"" + err.string() + "\"",
                                 ORVEXCTL_BINARY, "--address", bus.address(), "counters"});
  EXPECT_EQ(process.waitForExit(30s), 1);
  const auto text = testing::readTextFile(err);
  EXPECT_NE(text.find("org.freedesktop.DBus.Error.ServiceUnknown"), std::string::npos) << text;
  EXPECT_NE(text.find("not running on this bus"), std::string::npos) << text;
}

}  // namespace
}  // namespace orvex
