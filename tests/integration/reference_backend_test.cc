// The built reference back-end through its real interfaces: the bag it serves, its request
// log, the faults it injects, HTTPS, its control API and its command line.
#include "tests/support/reference_backend.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <future>

namespace orvex {
namespace {

using namespace std::chrono_literals;
using testing::readTextFile;
using Clock = std::chrono::steady_clock;

httplib::Client clientFor(const testing::ReferenceBackend& backend) {
  httplib::Client client(backend.baseUrl());
  client.enable_server_certificate_verification(false);
  client.set_read_timeout(5s);
  client.set_url_encode(false);  // send request targets exactly as written
  return client;
}

// The status and body of a GET; status -1 when no answer came.
std::pair<int, std::string> get(httplib::Client& client, const std::string& target) {
  auto answer = client.Get(target);
  return answer ? std::make_pair(answer->status, answer->body) : std::make_pair(-1, std::string());
}

class ReferenceBackendTest : public ::testing::Test {
 protected:
  ReferenceBackendTest() { writeBag(R"({"version": "1", "warm_url": "${BASE_URL}/warm"})"); }
  void writeBag(const std::string& text) const { std::ofstream(bag, std::ios::trunc) << text; }

  testing::TempDir dir;
  std::filesystem::path bag = dir / "bag.json";
};

TEST_F(ReferenceBackendTest, ServesTheBagWithItsOwnUrlAndReadsTheFileAgainOnEveryRequest) {
  writeBag(R"({"z": "${BASE_URL}/search?a=${BASE_URL}", "a": [1, {"u": "${BASE_URL}"}],
               "${BASE_URL}": true, "n": null})");
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);
  const std::string url = backend.baseUrl();
  EXPECT_EQ(url, "http://127.0.0.1:" + std::to_string(backend.port()));

  auto answer = client.Get("/bag?locale=en_US&key=abc");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->get_header_value("Content-Type"), "application/json");
  const auto json = nlohmann::ordered_json::parse(answer->body);
  // Every string value is substituted, however deep; keys and key order stay as written.
  EXPECT_EQ(json.dump(), nlohmann::ordered_json::parse(R"({"z": ")" + url + "/search?a=" + url +
                                                       R"(", "a": [1, {"u": ")" + url +
                                                       R"("}], "${BASE_URL}": true, "n": null})")
                             .dump());

  writeBag(R"({"version": "2"})");
  EXPECT_EQ(nlohmann::json::parse(get(client, "/bag").second).at("version"), "2");

  // A broken or missing file is a 500 with the reason, and the server carries on.
  writeBag(R"({"version": )");
  auto [status, body] = get(client, "/bag");
  EXPECT_EQ(status, 500);
  EXPECT_NE(body.find("is not valid JSON"), std::string::npos) << body;
  std::filesystem::remove(bag);
  std::tie(status, body) = get(client, "/bag");
  EXPECT_EQ(status, 500);
  EXPECT_NE(body.find("No such file or directory"), std::string::npos) << body;
  EXPECT_NE(backend.output().find("orvex-backend: error: bag: cannot open the bag file"),
            std::string::npos)
      << backend.output();

  EXPECT_EQ(get(client, "/warm").first, 204);
  EXPECT_EQ(get(client, "/nothing-here?q=a").first, 404);
  writeBag(R"({"version": "3"})");
  EXPECT_EQ(get(client, "/bag").first, 200);
}

TEST_F(ReferenceBackendTest, AnswersSearchesFromTheWordList) {
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);
  const auto search = [&](const std::string& target) {
    const auto [status, body] = get(client, target);
    return std::make_pair(status, nlohmann::json::parse(body, nullptr, false));
  };

  // A lemma is its own completion; its senses are the results, nouns first.
  auto [status, json] = search("/search?q=Dog");
  ASSERT_EQ(status, 200) << json;
  EXPECT_EQ(json["status"], "OK");
  EXPECT_EQ(json["query"], "dog");
  EXPECT_EQ(json["max_age"], 300);
  EXPECT_GT(json["completion_score"].get<double>(), 0);
  ASSERT_GE(json["results"].size(), 2u);
  const auto& first = json["results"][0];
  EXPECT_EQ(first["type"], "noun");
  EXPECT_NE(first["title"].get<std::string>().find("domestic dog"), std::string::npos) << first;
  EXPECT_NE(first["description"].get<std::string>().find("genus Canis"), std::string::npos);
  EXPECT_TRUE(first["id"].get<std::string>().starts_with("wordnet:n:"));
  EXPECT_EQ(json["results"].back()["type"], "verb");  // "to dog": chase after

  // A prefix completes to a lemma that begins with it, spaces for underscores.
  std::tie(status, json) = search("/search?q=ice+crea");
  EXPECT_EQ(json["query"], "ice cream");
  EXPECT_LE(json["completion_score"].get<double>(), 1.0);
  EXPECT_FALSE(json["results"].empty());

  // No lemma: the query as typed, no results.
  std::tie(status, json) = search("/search?q=zzqx%20y");
  EXPECT_EQ(status, 200);
  EXPECT_EQ(json["query"], "zzqx y");
  EXPECT_TRUE(json["results"].empty());
  std::tie(status, json) = search("/search?lang=en");
  EXPECT_EQ(status, 400);
  EXPECT_EQ(json["status"], "ERROR");

  // Faults and the request log apply as to every endpoint.
  backend.setFault("search", {{"status", 503}, {"count", 1}});
  EXPECT_EQ(search("/search?q=cat").first, 503);
  EXPECT_EQ(search("/search?q=cat").second["query"], "cat");
  const auto logged = backend.requests();
  ASSERT_FALSE(logged.empty());
  EXPECT_EQ(logged.back().endpoint, "search");
  EXPECT_EQ(backend.requestCount("search"), 6u);

  // Without a word list the server still runs, and says why searches fail.
  testing::ReferenceBackend bare(bag, {"--corpus", (dir / "no-such-dir").string()});
  auto bareClient = clientFor(bare);
  EXPECT_EQ(get(bareClient, "/search?q=dog").first, 503);
  EXPECT_NE(bare.output().find("no search answers"), std::string::npos) << bare.output();
  EXPECT_EQ(get(bareClient, "/warm").first, 204);
}

// A corpus written by hand: lines the server must read, and lines it must survive.
TEST_F(ReferenceBackendTest, SearchesSurviveADamagedWordList) {
  const auto corpus = dir / "wordnet";
  std::filesystem::create_directories(corpus);
  // Data lines begin with their own byte offset.
  const std::string first = "00000000 05 n 02 hot_dog 0 frank 0 000 | a sausage in a roll  \n";
  const std::string second = std::string(8 - std::to_string(first.size()).size(), '0') +
                             std::to_string(first.size()) + " 05 n 01 hotel 0 000 | an inn\n";
  std::ofstream(corpus / "data.noun") << first + second;
  std::ofstream(corpus / "index.noun")
      << "  1 licence line\n"
      << "hot_dog n 1 0 1 0 00000000\n"
      << "hotel n 2 0 2 0 " << second.substr(0, 8) << " 99999999\n"  // one offset past the end
      << "hotter n 1\n"                                              // cut short
      << "hottest n x 0 1 0 00000000\n";                             // not a number
  for (const char* part : {"verb", "adj", "adv"}) {
    std::ofstream(corpus / (std::string("index.") + part)) << "hold v 1 0 1 0 00000000\n";
    std::ofstream(corpus / (std::string("data.") + part)) << "garbage without an offset\n";
  }
  testing::ReferenceBackend backend(bag, {"--corpus", corpus.string()});
  auto client = clientFor(backend);
  const auto search = [&](const std::string& q) {
    const auto [status, body] = get(client, "/search?q=" + q);
    EXPECT_EQ(status, 200);
    return nlohmann::json::parse(body, nullptr, false);
  };

  auto json = search("hot+d");
  EXPECT_EQ(json["query"], "hot dog");
  ASSERT_EQ(json["results"].size(), 1u);
  EXPECT_EQ(json["results"][0]["title"], "hot dog, frank");
  EXPECT_EQ(json["results"][0]["description"], "a sausage in a roll");
  EXPECT_EQ(json["results"][0]["id"], "wordnet:n:00000000");

  json = search("hote");  // the sense past the end of the file is left out
  EXPECT_EQ(json["query"], "hotel");
  ASSERT_EQ(json["results"].size(), 1u);
  EXPECT_EQ(json["results"][0]["description"], "an inn");

  json = search("hol");  // the verb's line is not where the index says: no result, no crash
  EXPECT_EQ(json["query"], "hold");
  EXPECT_TRUE(json["results"].empty());
  EXPECT_TRUE(search("hott")["results"].empty());
  // "hotel" has two senses to "hot dog"'s one.
  EXPECT_EQ(search("hot")["query"], "hotel");
}

TEST_F(ReferenceBackendTest, LogsEachRequestAsSentWithTheStatusItGot) {
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);
  ASSERT_TRUE(client.Get("/bag?q=caf%C3%A9+au%20lait&empty=&flag&&cc=US",
                         {{"X-Zelmor-Client", "front end"}, {"Accept-Language", "fr-FR"}}));
  ASSERT_TRUE(client.Post("/nowhere", "twelve bytes", "text/plain"));
  // Bytes that are not UTF-8 must not break the log's JSON.
  ASSERT_TRUE(client.Head("/bag?q=%FF", {{"X-Twice", "a"}, {"X-Twice", "b"}}));
  backend.setFault("warm", {{"status", 503}});  // control requests are not logged

  auto logged = backend.requests();
  ASSERT_EQ(logged.size(), 3u);
  const auto& bagRequest = logged[0];
  EXPECT_EQ(bagRequest.seq, 1);
  EXPECT_EQ(bagRequest.endpoint, "bag");
  EXPECT_EQ(bagRequest.method, "GET");
  EXPECT_EQ(bagRequest.path, "/bag");
  EXPECT_EQ(bagRequest.query, "q=caf%C3%A9+au%20lait&empty=&flag&&cc=US");
  const std::vector<std::pair<std::string, std::string>> items = {
      {"q", "café au lait"}, {"empty", ""}, {"flag", ""}, {"cc", "US"}};
  EXPECT_EQ(bagRequest.queryItems, items);
  EXPECT_EQ(bagRequest.headers.at("x-zelmor-client"), "front end");
  EXPECT_EQ(bagRequest.headers.at("Accept-Language"), "fr-FR");
  EXPECT_EQ(bagRequest.headers.count("REMOTE_ADDR"), 0u);
  EXPECT_EQ(bagRequest.status, 200);
  EXPECT_EQ(logged[1].endpoint, std::nullopt);
  EXPECT_EQ(logged[1].method, "POST");
  EXPECT_EQ(logged[1].status, 404);
  EXPECT_EQ(logged[2].endpoint, "bag");
  EXPECT_EQ(logged[2].method, "HEAD");
  EXPECT_EQ(logged[2].queryItems.at(0).second, "\uFFFD");
  EXPECT_EQ(logged[2].headers.at("X-Twice"), "a, b");

  // The console log shows the request line, the status and each header.
  EXPECT_NE(backend.output().find("GET /bag?q=caf%C3%A9+au%20lait&empty=&flag&&cc=US -> 200\n"),
            std::string::npos)
      << backend.output();
  EXPECT_NE(backend.output().find("\n    X-Zelmor-Client: front end\n"), std::string::npos);

  EXPECT_EQ(backend.requests(1).size(), 2u);
  EXPECT_TRUE(backend.requests(3).empty());
  backend.clearRequests();
  EXPECT_TRUE(backend.requests().empty());
  ASSERT_TRUE(client.Get("/warm"));
  logged = backend.requests();
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0].seq, 4);  // numbers keep counting across a clear
  EXPECT_EQ(logged[0].status, 503);
  EXPECT_EQ(backend.requestCount("warm"), 1u);
  EXPECT_EQ(backend.requestCount("bag"), 0u);
}

TEST_F(ReferenceBackendTest, InjectsEachKindOfFaultRemovesCountedOnesAndRefusesBadOnes) {
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);

  backend.setFault("bag", {{"status", 503}, {"count", 2}});
  EXPECT_EQ(backend.faults(), nlohmann::json::parse(R"({"bag": {"status": 503, "count": 2}})"));
  for (int i = 0; i < 2; ++i) {
    auto answer = client.Get("/bag");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 503);
    EXPECT_EQ(answer->get_header_value("Content-Type"), "text/plain");
  }
  EXPECT_EQ(backend.faults(), nlohmann::json::object());
  EXPECT_EQ(client.Get("/bag")->status, 200);

  backend.setFault("bag", {{"body", "[]"}, {"headers", {{"X-Zelmor-ForceFetch", "12"}}}});
  auto answer = client.Get("/bag");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->body, "[]");
  EXPECT_EQ(answer->get_header_value("X-Zelmor-ForceFetch"), "12");
  EXPECT_EQ(answer->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(client.Get("/warm")->get_header_value("X-Zelmor-ForceFetch"), "") << "one endpoint";

  backend.setFault("bag", {{"garbage", true}});
  answer = client.Get("/bag");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->get_header_value("Content-Type"), "application/json");
  EXPECT_TRUE(nlohmann::json::parse(answer->body, nullptr, false).is_discarded());

  // A dropped answer is a transport error; the fault replaces the one before it.
  backend.setFault("bag", {{"drop", true}, {"count", 1}});
  EXPECT_FALSE(client.Get("/bag"));
  const auto [status, body] = get(client, "/bag");
  EXPECT_EQ(status, 200);
  EXPECT_EQ(nlohmann::json::parse(body).at("version"), "1");

  // A delayed answer holds up neither other requests nor its own entry in the log.
  backend.setFault("bag", {{"delay_ms", 400}, {"count", 1}});
  const size_t bagsBefore = backend.requestCount("bag");
  auto delayed = std::async(std::launch::async, [&] {
    auto ownClient = clientFor(backend);
    const auto start = Clock::now();
    auto result = ownClient.Get("/bag");
    return std::make_pair(result ? result->status : -1, Clock::now() - start);
  });
  ASSERT_TRUE(backend.waitForRequests("bag", bagsBefore + 1, 5s));
  EXPECT_EQ(get(client, "/warm").first, 204);
  EXPECT_EQ(delayed.wait_for(0s), std::future_status::timeout);
  const auto [delayedStatus, elapsed] = delayed.get();
  EXPECT_EQ(delayedStatus, 200);
  EXPECT_GE(elapsed, 400ms);
  const auto start = Clock::now();
  EXPECT_EQ(client.Get("/bag")->status, 200);
  EXPECT_LT(Clock::now() - start, 400ms);

  backend.setFault("bag", {{"status", 500}});
  backend.setFault("warm", {{"status", 500}});
  backend.clearFault("warm");
  EXPECT_EQ(backend.faults(), nlohmann::json::parse(R"({"bag": {"status": 500}})"));
  backend.clearFaults();
  EXPECT_EQ(client.Get("/bag")->status, 200);

  // Bad control input is refused with the reason, and the server keeps serving.
  const auto put = [&](const std::string& endpoint, const std::string& body) {
    auto answer = client.Put("/_orvex/faults/" + endpoint, body, "application/json");
    return answer ? std::make_pair(answer->status, answer->body) : std::make_pair(-1, "");
  };
  for (const auto& [body, reason] : std::vector<std::pair<std::string, std::string>>{
           {R"({"status": 503)", "not valid JSON"},
           {R"([503])", "must be a JSON object"},
           {R"({"sttaus": 503})", "unknown fault key \"sttaus\""},
           {R"({"status": "503"})", "\"status\" must be an integer"},
           {R"({"status": 99})", "\"status\" must be an integer"},
           {R"({"delay_ms": -1})", "\"delay_ms\" must be an integer"},
           {R"({"delay_ms": 1.5})", "\"delay_ms\" must be an integer"},
           {R"({"count": 0})", "\"count\" must be an integer"},
           {R"({"count": 18446744073709551615})", "\"count\" must be an integer"},
           {R"({"drop": "yes"})", "\"drop\" must be true or false"},
           {R"({"body": 3})", "\"body\" must be a string"},
           {R"({"headers": {"X-A": 1}})", "value of \"X-A\""},
           {R"({"headers": {"X-A": "a\r\nX-Injected: 1"}})", "without line breaks"},
           {R"({"headers": {"Bad Name": "a"}})", "is not a header name"},
       }) {
    const auto [status, text] = put("bag", body);
    EXPECT_EQ(status, 400) << body;
    EXPECT_NE(text.find(reason), std::string::npos) << body << " -> " << text;
  }
  EXPECT_EQ(put("lookup", "{}").first, 404);
  EXPECT_EQ(client.Get("/_orvex/requests?since=two")->status, 400);
  EXPECT_EQ(client.Post("/_orvex/faults", "{}", "application/json")->status, 405);
  EXPECT_EQ(client.Get("/_orvex/nothing")->status, 404);

  EXPECT_EQ(backend.faults(), nlohmann::json::object());
  EXPECT_EQ(client.Get("/bag")->status, 200);
  EXPECT_THROW(backend.setFault("bag", {{"status", "503"}}), std::runtime_error);
}

TEST_F(ReferenceBackendTest, ServesHttpsWithTheGivenCertificate) {
  const auto certificate = dir / "cert.pem";
  const auto key = dir / "key.pem";
  testing::ChildProcess openssl(
      {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1",
       "-days", "1", "-keyout", key.string(), "-out", certificate.string()},
      {}, dir / "openssl.log");
  ASSERT_EQ(openssl.waitForExit(30s), 0) << readTextFile(dir / "openssl.log");

  testing::ReferenceBackend backend(bag, {"--cert", certificate.string(), "--key", key.string()});
  EXPECT_EQ(backend.baseUrl(), "https://127.0.0.1:" + std::to_string(backend.port()));
  httplib::SSLClient client("127.0.0.1", backend.port());
  client.enable_server_certificate_verification(false);
  auto answer = client.Get("/bag");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(nlohmann::json::parse(answer->body).at("warm_url"), backend.baseUrl() + "/warm");
  backend.setFault("warm", {{"status", 502}});  // the control API over HTTPS too
  EXPECT_EQ(client.Get("/warm")->status, 502);
  EXPECT_FALSE(httplib::Client("127.0.0.1", backend.port()).Get("/bag")) << "no plain HTTP";

  // Bound to every address, the bag points at the host the client asked for.
  testing::ReferenceBackend everywhere(bag, {"--bind", "0.0.0.0"});
  EXPECT_EQ(everywhere.baseUrl(), "http://127.0.0.1:" + std::to_string(everywhere.port()));
  answer = clientFor(everywhere).Get("/bag", {{"Host", "device.local:8443"}});
  ASSERT_TRUE(answer);
  EXPECT_EQ(nlohmann::json::parse(answer->body).at("warm_url"), "http://device.local:8443/warm");

  // A certificate that cannot be used stops the server at start with the reason.
  const auto log = dir / "bad-cert.log";
  testing::ChildProcess bad(
      {ORVEX_BACKEND_BINARY, "--bag", bag.string(), "--cert", key.string(), "--key", key.string()},
      {}, log);
  EXPECT_EQ(bad.waitForExit(10s), 2);
  EXPECT_NE(readTextFile(log).find("as a PEM certificate and its private key"), std::string::npos)
      << readTextFile(log);
}

TEST_F(ReferenceBackendTest, CommandLineSetsFaultsRefusesMistakesAndStopsOnSignals) {
  testing::ReferenceBackend backend(bag, {"--quiet", "--fault", R"(warm={"status": 500})",
                                          "--fault=bag={\"body\": \"{}\", \"count\": 1}"});
  auto client = clientFor(backend);
  EXPECT_EQ(client.Get("/warm")->status, 500);
  EXPECT_EQ(client.Get("/bag")->body, "{}");
  EXPECT_NE(client.Get("/bag")->body, "{}");
  EXPECT_EQ(backend.requestCount("bag"), 2u);
  EXPECT_EQ(backend.output().find("GET /bag"), std::string::npos) << "quiet";

  // A signal ends the server at once, even with an idle kept-alive connection and an answer
  // still waiting out its delay.
  client.set_keep_alive(true);
  ASSERT_EQ(client.Get("/warm")->status, 500);
  backend.setFault("bag", {{"delay_ms", 60'000}});
  auto delayed = std::async(std::launch::async, [&] { return clientFor(backend).Get("/bag"); });
  ASSERT_TRUE(backend.waitForRequests("bag", 3, 5s));
  const auto signalled = Clock::now();
  EXPECT_EQ(backend.stop(SIGINT), 0);
  EXPECT_LT(Clock::now() - signalled, 2s);
  delayed.wait();

  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORVEX_BACKEND_BINARY);
    const auto log = dir / "run.log";
    std::filesystem::remove(log);
    testing::ChildProcess process(arguments, {}, log);
    const auto status = process.waitForExit(10s);
    return std::make_pair(status, readTextFile(log));
  };
  const auto [helpStatus, help] = run({"--help"});
  EXPECT_EQ(helpStatus, 0);
  for (const char* part : {"--port-file FILE", "--fault ENDPOINT=JSON", "${BASE_URL}",
                           "PUT    /_orvex/faults/ENDPOINT", "\"delay_ms\": N"}) {
    EXPECT_NE(help.find(part), std::string::npos) << part;
  }
  for (const auto& [arguments, reason] :
       std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--prot", "80"}, "unknown option \"--prot\""},
           {{"--port", "65536"}, "--port wants a number"},
           {{"--cert", "cert.pem"}, "--cert and --key go together"},
           {{"--bag"}, "--bag needs a value"},
           {{"--fault", "lookup={}"}, "no endpoint named \"lookup\""},
           {{"--fault", "bag"}, "--fault wants ENDPOINT=JSON"},
       }) {
    const auto [status, text] = run(arguments);
    EXPECT_EQ(status, 2) << arguments[0];
    EXPECT_NE(text.find(reason), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace orvex
