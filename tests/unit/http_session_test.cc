#include "orvexd/platform/http_session.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "orvexd/platform/clock.h"
#include "orvexd/platform/http_timing.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/worker_pool.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::LoopbackHttpServer;
using testing::RecordedRequest;
using testing::TempDir;
using namespace std::chrono_literals;

constexpr auto kWatchdog = std::chrono::seconds(30);

// Collects completions of one kind and notes whether each ran on the session's queue.
template <typename Result>
class Completions {
 public:
  explicit Completions(const HttpSession& session) : queue_(&session.callbackQueue()) {}

  std::function<void(Result)> callback() {
    return [this](Result result) {
      std::lock_guard lock(mutex_);
      results_.push_back(std::move(result));
      onQueue_.push_back(queue_ == nullptr || queue_->isCurrent());
      changed_.notify_all();
    };
  }
  bool wait(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kWatchdog, [&] { return results_.size() >= count; });
  }
  std::vector<Result> results() {
    std::lock_guard lock(mutex_);
    return results_;
  }
  // Stops checking the queue, which is about to go away with its session.
  void forgetQueue() {
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
  }
  bool allOnQueue() {
    std::lock_guard lock(mutex_);
    return std::all_of(onQueue_.begin(), onQueue_.end(), [](bool b) { return b; });
  }

 private:
  const SerialQueue* queue_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Result> results_;
  std::vector<bool> onQueue_;
};

// A handler that holds its request until the test lets it go.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kWatchdog, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

size_t threadCount() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    (void)entry;
    ++count;
  }
  return count;
}

double timingValue(const TaskTimingData& timing, std::string_view name) {
  const PlistValue* value = [&]() -> const PlistValue* {
    auto found = timing.find(taskTimingKey(name));
    return found == timing.end() ? nullptr : &found->second;
  }();
  return value != nullptr ? value->asDouble().value_or(-1) : -1;
}

class HttpSessionTest : public ::testing::Test {
 protected:
  std::unique_ptr<HttpSession> makeSession(std::string identifier = "test") {
    HttpSessionConfiguration configuration;
    configuration.identifier = std::move(identifier);
    return std::make_unique<HttpSession>(configuration, pool_, clock_, temp_.path().string());
  }
  HttpRequest request(std::string path, std::string method = "GET") {
    HttpRequest request;
    request.url = server_.baseUrl() + path;
    request.method = std::move(method);
    return request;
  }

  SystemClock clock_;
  WorkerPool pool_{4};
  TempDir temp_;
  LoopbackHttpServer server_;
};

TEST_F(HttpSessionTest, DataTasksCarryRequestsAndAnswersIncludingErrorStatuses) {
  server_.handle("GET", "/hello", [](const RecordedRequest& r) {
    return LoopbackHttpServer::Response{
        201,
        "hi " + (r.headers.contains("x-name") ? r.headers.at("x-name") : std::string("?")),
        {{"X-Reply", "one"}, {"Set-Twice", "a"}, {"Set-Twice", "b"}, {"Content-Type", "text/x-t"}}};
  });
  server_.handle("POST", "/echo", [](const RecordedRequest& r) {
    return LoopbackHttpServer::Response{
        200, r.body, {{"Content-Type", "application/octet-stream"}}};
  });
  server_.handle("GET", "/old", [](const RecordedRequest&) {
    return LoopbackHttpServer::Response{302, "moved", {{"Location", "/hello"}, {"X-Old", "1"}}};
  });
  auto session = makeSession();
  Completions<HttpDataResult> done(*session);

  HttpRequest get = request("/hello?q=a%3Bb;c");
  get.headers["X-Name"] = "orvex";
  auto task = session->dataTask(get, done.callback());
  EXPECT_EQ(task->state(), HttpTask::State::kSuspended);
  EXPECT_EQ(server_.requestCount(), 0u) << "nothing is sent before resume()";
  task->resume();
  ASSERT_TRUE(done.wait(1));

  const std::string binary("a\0b\xff\r\n", 6);
  HttpRequest post = request("/echo", "POST");
  post.body = binary;
  session->dataTask(post, done.callback())->resume();
  session->dataTask(request("/old"), done.callback())->resume();
  session->dataTask(request("/nowhere"), done.callback())->resume();
  ASSERT_TRUE(done.wait(4));
  EXPECT_TRUE(done.allOnQueue());
  EXPECT_EQ(task->state(), HttpTask::State::kCompleted);
  EXPECT_EQ(session->outstandingTaskCount(), 0u);

  auto results = done.results();
  const HttpDataResult& hello = results[0];
  ASSERT_FALSE(hello.error) << hello.error->describe();
  ASSERT_TRUE(hello.response);
  EXPECT_EQ(hello.response->statusCode, 201);
  EXPECT_EQ(hello.data, "hi orvex");
  EXPECT_EQ(hello.response->headers.at("x-reply"), "one");
  EXPECT_EQ(hello.response->headers.at("SET-TWICE"), "a, b");
  EXPECT_EQ(hello.response->headers.at("content-type"), "text/x-t");
  EXPECT_FALSE(hello.response->fromCache);
  EXPECT_EQ(hello.response->url, get.url);

  auto recorded = server_.requests();
  ASSERT_GE(recorded.size(), 5u);
  EXPECT_EQ(recorded[0].path, "/hello");
  EXPECT_EQ(recorded[0].rawQuery, "q=a%3Bb;c");
  ASSERT_EQ(recorded[0].queryItems.size(), 1u);
  EXPECT_EQ(recorded[0].queryItems[0].second, "a;b;c");
  EXPECT_EQ(recorded[0].headers.at("x-name"), "orvex");
  EXPECT_EQ(recorded[0].headers.count("Cookie"), 0u);
  EXPECT_TRUE(recorded[0].headers.contains("Accept-Encoding"));

  std::optional<HttpDataResult> echo, redirected, missing;
  for (auto& result : results) {
    if (!result.response) continue;
    if (result.response->url.ends_with("/echo")) echo = result;
    if (result.response->url.ends_with("/nowhere")) missing = result;
    if (result.response->url.ends_with("/hello") && &result != &results[0]) redirected = result;
  }
  ASSERT_TRUE(echo && redirected && missing);
  EXPECT_EQ(echo->data, binary) << "the body is sent and received byte for byte";
  EXPECT_EQ(redirected->response->statusCode, 201);
  EXPECT_FALSE(redirected->response->headers.contains("Location"))
      << "only the final response's headers are kept";
  EXPECT_FALSE(redirected->response->headers.contains("X-Old"));
  EXPECT_EQ(missing->response->statusCode, 404) << "an error status is an answer";
  EXPECT_FALSE(missing->error);
}

TEST_F(HttpSessionTest, RefusedConnectionsStallsAndBrokenAnswersAreTransportErrors) {
  int closedPort = 0;
  {
    LoopbackHttpServer gone;
    closedPort = gone.port();
  }
  Gate gate;
  server_.handle("GET", "/slow", [&](const RecordedRequest&) {
    gate.wait();
    return LoopbackHttpServer::Response{200, "late", {}};
  });
  server_.handle("GET", "/ok", [](const RecordedRequest&) {
    return LoopbackHttpServer::Response{200, "fine", {}};
  });
  auto session = makeSession();
  Completions<HttpDataResult> done(*session);

  HttpRequest refused;
  refused.url = "http://127.0.0.1:" + std::to_string(closedPort) + "/";
  session->dataTask(refused, done.callback())->resume();
  ASSERT_TRUE(done.wait(1));

  server_.failNextRequests(1);
  session->dataTask(request("/ok"), done.callback())->resume();
  ASSERT_TRUE(done.wait(2));
  session->dataTask(request("/ok"), done.callback())->resume();
  ASSERT_TRUE(done.wait(3));

  HttpRequest stalled = request("/slow");
  stalled.timeout = 1s;  // nothing arrives for longer than this
  session->dataTask(stalled, done.callback())->resume();
  ASSERT_TRUE(done.wait(4));
  gate.open();

  auto results = done.results();
  ASSERT_TRUE(results[0].error);
  EXPECT_EQ(results[0].error->domain, kHttpErrorDomain);
  EXPECT_EQ(results[0].error->code, CURLE_COULDNT_CONNECT);
  EXPECT_FALSE(results[0].response);
  EXPECT_NE(results[0].error->reason.find(curl_easy_strerror(CURLE_COULDNT_CONNECT)),
            std::string::npos);

  ASSERT_TRUE(results[1].error) << "the failed request must not look like an answer";
  EXPECT_TRUE(results[1].error->code == CURLE_PARTIAL_FILE ||
              results[1].error->code == CURLE_RECV_ERROR)
      << results[1].error->describe();
  ASSERT_FALSE(results[2].error) << "only the next request fails";
  EXPECT_EQ(results[2].data, "fine");
  EXPECT_EQ(server_.requestCount(), 3u) << "the failed request is recorded too";

  ASSERT_TRUE(results[3].error);
  EXPECT_EQ(results[3].error->code, CURLE_OPERATION_TIMEDOUT) << results[3].error->describe();
}

TEST_F(HttpSessionTest, CancelledTasksCompleteOnceWithTheCancelledError) {
  Gate gate;
  server_.handle("GET", "/block", [&](const RecordedRequest&) {
    gate.wait();
    return LoopbackHttpServer::Response{200, "too late", {}};
  });
  server_.handle("GET", "/ok", [](const RecordedRequest&) {
    return LoopbackHttpServer::Response{200, "ok", {}};
  });
  auto session = makeSession();
  Completions<HttpDataResult> done(*session);

  auto before = session->dataTask(request("/ok"), done.callback());
  before->cancel();
  before->resume();  // no effect after cancel
  before->cancel();
  ASSERT_TRUE(done.wait(1));

  auto during = session->dataTask(request("/block"), done.callback());
  during->resume();
  ASSERT_TRUE(server_.waitForRequests(1, kWatchdog));
  std::thread([during] { during->cancel(); }).join();  // from another thread
  ASSERT_TRUE(done.wait(2));
  gate.open();

  // Tasks dropped with the session, and cancelAllTasks, complete the same way.
  Gate second;
  server_.handle("GET", "/block2", [&](const RecordedRequest&) {
    second.wait();
    return LoopbackHttpServer::Response{200, "x", {}};
  });
  auto running = session->dataTask(request("/block2"), done.callback());
  running->resume();
  auto suspended = session->dataTask(request("/ok"), done.callback());
  ASSERT_TRUE(server_.waitForRequests(2, kWatchdog));
  EXPECT_EQ(session->outstandingTaskCount(), 2u);
  session->cancelAllTasks();
  ASSERT_TRUE(done.wait(4));
  second.open();

  auto lastOne = session->dataTask(request("/ok"), done.callback());
  lastOne->resume();
  ASSERT_TRUE(done.wait(5));
  auto pending = session->dataTask(request("/ok"), done.callback());
  EXPECT_TRUE(done.allOnQueue());
  done.forgetQueue();
  session.reset();
  ASSERT_TRUE(done.wait(6));
  pool_.waitUntilIdle();

  auto results = done.results();
  ASSERT_EQ(results.size(), 6u) << "each task completes exactly once";
  for (size_t i : {0u, 1u, 2u, 3u, 5u}) {
    ASSERT_TRUE(results[i].error) << i;
    EXPECT_EQ(*results[i].error, OrvexError(kHttpErrorDomain, kHttpErrorCancelled, "cancelled"));
    EXPECT_FALSE(results[i].response);
  }
  EXPECT_FALSE(results[4].error);
  EXPECT_EQ(results[4].data, "ok");
  EXPECT_EQ(server_.requestCount(), 3u) << "a task cancelled before it started sends nothing";
  EXPECT_EQ(before->state(), HttpTask::State::kCompleted);
  EXPECT_EQ(pending->state(), HttpTask::State::kCompleted);
}

TEST_F(HttpSessionTest, ManyConcurrentTasksRunOnTheSessionsOneNetworkThread) {
  Gate gate;
  server_.handle("GET", "/wait", [&](const RecordedRequest& r) {
    gate.wait();
    return LoopbackHttpServer::Response{200, r.rawQuery, {}};
  });
  auto session = makeSession();
  Completions<HttpDataResult> done(*session);
  const size_t baseline = threadCount();
  constexpr int kTasks = 40;
  for (int i = 0; i < kTasks; ++i) {
    session->dataTask(request("/wait?" + std::to_string(i)), done.callback())->resume();
  }
  // The server works on a handful at once; the rest wait in connections the client holds.
  ASSERT_TRUE(server_.waitForRequests(4, kWatchdog));
  const size_t during = threadCount();
  EXPECT_EQ(session->outstandingTaskCount(), static_cast<size_t>(kTasks));
  gate.open();
  ASSERT_TRUE(done.wait(kTasks));
  EXPECT_LE(during, baseline + 1) << "no thread per task";
  for (const auto& result : done.results()) {
    ASSERT_FALSE(result.error) << result.error->describe();
  }
}

TEST_F(HttpSessionTest, DownloadsGoToAPrivateTemporaryFileThatIsRemovedAfterwards) {
  const std::string body(300000, 'd');
  server_.handle("GET", "/file", [&](const RecordedRequest&) {
    return LoopbackHttpServer::Response{200, body, {{"Content-Type", "application/octet-stream"}}};
  });
  auto session = makeSession();
  std::string seenLocation;
  std::string seenContent;
  mode_t seenMode = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<HttpDownloadResult> results;
  const auto completion = [&](HttpDownloadResult result) {
    if (!result.location.empty()) {
      std::ifstream in(result.location, std::ios::binary);
      seenContent.assign(std::istreambuf_iterator<char>(in), {});
      struct stat info {};
      if (::stat(result.location.c_str(), &info) == 0) seenMode = info.st_mode & 0777;
      seenLocation = result.location;
    }
    std::lock_guard lock(mutex);
    results.push_back(std::move(result));
    changed.notify_all();
  };
  server_.failNextRequests(1);
  session->downloadTask(request("/file"), completion)->resume();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kWatchdog, [&] { return results.size() == 1; }));
  }
  session->downloadTask(request("/file"), completion)->resume();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kWatchdog, [&] { return results.size() == 2; }));
  }
  pool_.waitUntilIdle();

  const HttpDownloadResult& bad = results[0];
  const HttpDownloadResult& good = results[1];
  ASSERT_FALSE(good.error) << good.error->describe();
  ASSERT_TRUE(bad.error);
  EXPECT_TRUE(bad.location.empty());
  EXPECT_EQ(seenContent, body);
  EXPECT_EQ(seenMode, 0600u);
  EXPECT_EQ(std::filesystem::path(seenLocation).parent_path(), temp_.path());
  EXPECT_FALSE(std::filesystem::exists(seenLocation));
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path())) << "no file is left behind";
}

TEST_F(HttpSessionTest, UploadsStreamTheFileAndAMissingFileIsAnError) {
  server_.handle("POST", "/up", [](const RecordedRequest& r) {
    return LoopbackHttpServer::Response{200, std::to_string(r.body.size()), {}};
  });
  server_.handle("PUT", "/up", [](const RecordedRequest& r) {
    return LoopbackHttpServer::Response{201, std::to_string(r.body.size()), {}};
  });
  std::string content;
  for (int i = 0; i < 150000; ++i) content += static_cast<char>(i * 7 % 256);
  const auto file = temp_ / "upload.bin";
  std::ofstream(file, std::ios::binary) << content;

  auto session = makeSession();
  Completions<HttpDataResult> done(*session);
  session->uploadTask(request("/up", "POST"), file.string(), done.callback())->resume();
  ASSERT_TRUE(done.wait(1));
  session->uploadTask(request("/up", "PUT"), file.string(), done.callback())->resume();
  ASSERT_TRUE(done.wait(2));
  session->uploadTask(request("/up", "POST"), (temp_ / "missing").string(), done.callback())
      ->resume();
  ASSERT_TRUE(done.wait(3));

  auto results = done.results();
  ASSERT_FALSE(results[0].error) << results[0].error->describe();
  EXPECT_EQ(results[0].response->statusCode, 200);
  EXPECT_EQ(results[0].data, std::to_string(content.size()));
  ASSERT_FALSE(results[1].error) << results[1].error->describe();
  EXPECT_EQ(results[1].response->statusCode, 201);
  ASSERT_TRUE(results[2].error);
  EXPECT_EQ(results[2].error->domain, kHttpErrorDomain);
  EXPECT_EQ(results[2].error->code, CURLE_READ_ERROR);
  EXPECT_NE(results[2].error->reason.find("missing"), std::string::npos);

  auto recorded = server_.requests();
  ASSERT_EQ(recorded.size(), 2u) << "a missing file sends nothing";
  EXPECT_EQ(recorded[0].body, content);
  EXPECT_EQ(recorded[1].method, "PUT");
  EXPECT_EQ(recorded[1].body, content);
}

TEST_F(HttpSessionTest, TimingDescribesALoopbackTransferAndConnectionReuse) {
  server_.handle("GET", "/t", [](const RecordedRequest&) {
    return LoopbackHttpServer::Response{200, std::string(5000, 't'), {}};
  });
  auto session = makeSession();
  Completions<HttpDataResult> done(*session);
  auto first = session->dataTask(request("/t"), done.callback());
  first->resume();
  ASSERT_TRUE(done.wait(1));
  session->dataTask(request("/t"), done.callback())->resume();
  ASSERT_TRUE(done.wait(2));
  auto results = done.results();
  ASSERT_FALSE(results[0].error);
  ASSERT_FALSE(results[1].error);

  const TaskTimingData& timing = results[0].timing;
  EXPECT_EQ(first->timingData(), timing);
  for (const auto& [key, value] : timing) EXPECT_TRUE(key.starts_with(kTaskTimingPrefix)) << key;
  const double now = std::chrono::duration<double>(clock_.wallNow().time_since_epoch()).count();
  const double fetchStart = timingValue(timing, "fetchStart");
  EXPECT_GT(fetchStart, now - 600);
  EXPECT_LE(fetchStart, now);
  const char* order[] = {"fetchStart",   "domainLookupStart", "domainLookupEnd",
                         "connectStart", "connectEnd",        "requestStart",
                         "requestEnd",   "responseStart",     "responseEnd"};
  double previous = 0;
  for (const char* name : order) {
    const double value = timingValue(timing, name);
    EXPECT_GE(value, previous) << name;
    previous = value;
  }
  EXPECT_FALSE(timing.contains(taskTimingKey("secureConnectionStart"))) << "no TLS here";
  EXPECT_EQ(timing.at(taskTimingKey("connectionReused")).asBool(), false);
  ASSERT_TRUE(timing.contains(taskTimingKey("interfaceIdentifier")));
  EXPECT_EQ(*timing.at(taskTimingKey("interfaceIdentifier")).asString(), "lo");
  const PlistData* peer = timing.at(taskTimingKey("peerAddress")).asData();
  ASSERT_TRUE(peer);
  ASSERT_EQ(peer->size(), 16u);
  EXPECT_EQ((*peer)[0], 16);
  EXPECT_EQ((*peer)[1], 2);
  EXPECT_EQ(((*peer)[2] << 8) | (*peer)[3], server_.port());
  EXPECT_EQ(PlistData(peer->begin() + 4, peer->begin() + 8), (PlistData{127, 0, 0, 1}));

  const TaskTimingData& reused = results[1].timing;
  EXPECT_EQ(reused.at(taskTimingKey("connectionReused")).asBool(), true);
  EXPECT_FALSE(reused.contains(taskTimingKey("connectStart")));
  EXPECT_FALSE(reused.contains(taskTimingKey("domainLookupEnd")));
  EXPECT_LE(timingValue(reused, "responseStart"), timingValue(reused, "responseEnd"));
  auto recorded = server_.requests();
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[0].remotePort, recorded[1].remotePort) << "one connection for both";
}

TEST(HttpTimingTest, EncodesSocketAddressesInTheBsdLayout) {
  auto loopback6 = encodeBsdSocketAddress("::1", 443);
  ASSERT_TRUE(loopback6);
  PlistData expected(28, 0);
  expected[0] = 28;
  expected[1] = 30;
  expected[2] = 0x01;
  expected[3] = 0xbb;
  expected[23] = 1;
  EXPECT_EQ(*loopback6, expected);

  auto documentation = encodeBsdSocketAddress("2001:db8::1", 8080);
  ASSERT_TRUE(documentation);
  ASSERT_EQ(documentation->size(), 28u);
  EXPECT_EQ((*documentation)[2], 0x1f);
  EXPECT_EQ((*documentation)[3], 0x90);
  EXPECT_EQ(PlistData(documentation->begin() + 4, documentation->begin() + 8), PlistData(4, 0));
  const PlistData address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(PlistData(documentation->begin() + 8, documentation->begin() + 24), address);

  auto scoped = encodeBsdSocketAddress("fe80::1%7", 80);
  ASSERT_TRUE(scoped);
  uint32_t scope = 0;
  std::memcpy(&scope, scoped->data() + 24, 4);
  EXPECT_EQ(scope, 7u);

  EXPECT_EQ(*encodeBsdSocketAddress("10.1.2.3", 65535),
            (PlistData{16, 2, 0xff, 0xff, 10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(encodeBsdSocketAddress("example.org", 80));
  EXPECT_FALSE(encodeBsdSocketAddress("1.2.3.4", 70000));
  EXPECT_FALSE(encodeBsdSocketAddress("", 80));
  EXPECT_FALSE(encodeBsdSocketAddress("fe80::1%", 80));

  EXPECT_EQ(localInterfaceForAddress("127.0.0.1"), "lo");
  EXPECT_FALSE(localInterfaceForAddress("192.0.2.77"));
  EXPECT_FALSE(localInterfaceForAddress("garbage"));
}

TEST(HttpTimingTest, LeavesOutPhasesThatDidNotHappen) {
  const WallTime start = std::chrono::system_clock::from_time_t(1700000000);
  CurlTransferMetrics tls;
  tls.nameLookupUs = 100;
  tls.connectUs = 300;
  tls.appConnectUs = 900;
  tls.preTransferUs = 950;
  tls.startTransferUs = 2000;
  tls.totalUs = 2500;
  tls.uploadDoneUs = 5000;  // past the answer: clamped to it
  tls.numConnects = 1;
  tls.tls = true;
  auto timing = makeTaskTimingData(start, tls);
  EXPECT_DOUBLE_EQ(timingValue(timing, "fetchStart"), 1700000000.0);
  EXPECT_DOUBLE_EQ(timingValue(timing, "secureConnectionStart"), 1700000000.0003);
  EXPECT_DOUBLE_EQ(timingValue(timing, "secureConnectionEnd"), 1700000000.0009);
  EXPECT_DOUBLE_EQ(timingValue(timing, "requestEnd"), 1700000000.002);
  EXPECT_DOUBLE_EQ(timingValue(timing, "responseEnd"), 1700000000.0025);

  CurlTransferMetrics refused;
  refused.nameLookupUs = 50;
  refused.totalUs = 400;
  auto failed = makeTaskTimingData(start, refused);
  for (const char* absent : {"connectStart", "requestStart", "responseStart", "responseEnd",
                             "connectionReused", "interfaceIdentifier", "peerAddress"}) {
    EXPECT_FALSE(failed.contains(taskTimingKey(absent))) << absent;
  }
  EXPECT_DOUBLE_EQ(timingValue(failed, "domainLookupEnd"), 1700000000.00005);

  CurlTransferMetrics reused;
  reused.preTransferUs = 20;
  reused.startTransferUs = 90;
  reused.totalUs = 95;
  auto again = makeTaskTimingData(start, reused);
  EXPECT_EQ(again.at(taskTimingKey("connectionReused")).asBool(), true);
  EXPECT_FALSE(again.contains(taskTimingKey("domainLookupStart")));
  EXPECT_FALSE(again.contains(taskTimingKey("connectEnd")));
  EXPECT_DOUBLE_EQ(timingValue(again, "requestEnd"), 1700000000.00002);
}

}  // namespace
}  // namespace orvex
