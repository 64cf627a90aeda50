#include "orvexd/platform/http_session.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "orvexd/platform/http_timing.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/worker_pool.h"
#include "tests/support/collector.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::LoopbackHttpServer;
using testing::RecordedRequest;
using testing::TempDir;
using testing::VirtualPlatform;
using namespace std::chrono_literals;

constexpr auto kWatchdog = std::chrono::seconds(30);
using Response = LoopbackHttpServer::Response;

// Collects the completions of tasks that run at the same time, noting whether each ran on the
// session's callback queue until forgetQueue(), before the session (and its queue) goes.
class Completions : public testing::Collector<HttpDataResult> {
 public:
  explicit Completions(const HttpSession& session) : queue_(&session.callbackQueue()) {}
  HttpSession::DataCompletion callback() {
    return [this](HttpDataResult result) {
      {
        std::lock_guard lock(mutex_);
        allOnQueue_ = allOnQueue_ && (queue_ == nullptr || queue_->isCurrent());
      }
      add(std::move(result));
    };
  }
  bool forgetQueue() {
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
    return allOnQueue_;
  }

 private:
  std::mutex mutex_;
  const SerialQueue* queue_;
  bool allOnQueue_ = true;
};

double timingValue(const TaskTimingData& timing, std::string_view name) {
  auto found = timing.find(taskTimingKey(name));
  return found == timing.end() ? -1 : found->second.asDouble().value_or(-1);
}

class HttpSessionTest : public ::testing::Test {
 protected:
  enum class Kind { kData, kDownload, kUpload };

  std::unique_ptr<HttpSession> makeSession(bool cached = false) {
    HttpSessionConfiguration configuration;
    configuration.identifier = "test";
    if (cached) {
      configuration.urlCache = std::make_shared<UrlCache>(
          1 << 20, 4 << 20, (temp_ / "cache").string(), *platform_.clock);
    }
    return std::make_unique<HttpSession>(configuration, *platform_.pool, *platform_.clock,
                                         temp_.path().string());
  }
  HttpRequest request(std::string path, std::string method = "GET") {
    HttpRequest request;
    request.url = server_.baseUrl() + path;
    request.method = std::move(method);
    return request;
  }
  // Runs one task to its completion, which must run on the session's callback queue. A
  // download's file is read inside the completion (it is removed afterwards) and returned as
  // the data; its location and permissions are kept in downloadedTo_ and downloadMode_.
  HttpDataResult fetch(HttpSession& session, HttpRequest request, Kind kind = Kind::kData,
                       std::string uploadPath = {}) {
    std::promise<HttpDataResult> promise;
    const auto done = [&](HttpDataResult result) {
      EXPECT_TRUE(session.callbackQueue().isCurrent());
      promise.set_value(std::move(result));
    };
    std::shared_ptr<HttpTask> task;
    if (kind == Kind::kDownload) {
      task = session.downloadTask(request, [&](HttpDownloadResult result) {
        struct stat info {};
        downloadMode_ = ::stat(result.location.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
        downloadedTo_ = result.location;
        done({testing::readTextFile(result.location), std::move(result.response),
              std::move(result.error), std::move(result.timing)});
      });
    } else if (kind == Kind::kUpload) {
      task = session.uploadTask(request, uploadPath, done);
    } else {
      task = session.dataTask(request, done);
    }
    task->resume();
    auto future = promise.get_future();
    if (future.wait_for(kWatchdog) != std::future_status::ready) {
      ADD_FAILURE() << "no completion for " << request.url;
      task->cancel();
      future.wait();
    }
    platform_.settle();  // the completion has returned: a download's file is gone
    EXPECT_EQ(task->state(), HttpTask::State::kCompleted);
    return future.get();
  }

  VirtualPlatform platform_;
  TempDir temp_;
  LoopbackHttpServer server_;
  std::string downloadedTo_;
  mode_t downloadMode_ = 0;
};

TEST_F(HttpSessionTest, DataTasksCarryRequestsAnswersAndRedirects) {
  server_.handle("GET", "/hello", [](const RecordedRequest& r) {
    return Response{
        201,
        "hi " + (r.headers.contains("x-name") ? r.headers.at("x-name") : std::string("?")),
        {{"X-Reply", "one"}, {"Set-Twice", "a"}, {"Set-Twice", "b"}, {"Content-Type", "text/x-t"}}};
  });
  server_.handle("GET", "/old", [](const RecordedRequest&) {
    return Response{302, "moved", {{"Location", "/hello"}, {"X-Old", "1"}}};
  });
  auto session = makeSession();

  HttpRequest get = request("/hello?q=a%3Bb;c");
  get.headers["X-Name"] = "orvex";
  auto task = session->dataTask(get, nullptr);
  EXPECT_EQ(task->state(), HttpTask::State::kSuspended);
  const HttpDataResult hello = fetch(*session, get);
  EXPECT_EQ(server_.requestCount(), 1u) << "nothing is sent before resume()";
  ASSERT_FALSE(hello.error) << hello.error->describe();
  EXPECT_EQ(hello.response->statusCode, 201);
  EXPECT_EQ(hello.data, "hi orvex");
  EXPECT_EQ(hello.response->headers.at("x-reply"), "one");
  EXPECT_EQ(hello.response->headers.at("SET-TWICE"), "a, b");
  EXPECT_EQ(hello.response->url, get.url);
  const RecordedRequest sent = server_.requests()[0];
  EXPECT_EQ(sent.rawQuery, "q=a%3Bb;c");
  ASSERT_EQ(sent.queryItems.size(), 1u);
  EXPECT_EQ(sent.queryItems[0].second, "a;b;c");
  EXPECT_EQ(sent.headers.at("x-name"), "orvex");
  EXPECT_TRUE(sent.headers.contains("Accept-Encoding"));

  const HttpDataResult redirected = fetch(*session, request("/old"));
  EXPECT_EQ(redirected.response->statusCode, 201);
  EXPECT_EQ(redirected.response->url, request("/hello").url);
  EXPECT_FALSE(redirected.response->headers.contains("X-Old")) << "only the final headers";
  EXPECT_EQ(session->outstandingTaskCount(), 1u) << "only the task never resumed";
}

TEST_F(HttpSessionTest, CancelledTasksCompleteOnceWithTheCancelledError) {
  // Shared with the handlers, which may still be waking from them when the test body returns.
  auto first = std::make_shared<testing::Gate>();
  auto second = std::make_shared<testing::Gate>();
  server_.handle("GET", "/block", [first, second](const RecordedRequest& r) {
    (r.rawQuery == "1" ? first : second)->wait();
    return Response{200, "too late", {}};
  });
  server_.handle("GET", "/ok", [](const RecordedRequest&) { return Response{200, "ok", {}}; });
  auto session = makeSession();
  Completions done(*session);

  auto before = session->dataTask(request("/ok"), done.callback());
  before->cancel();
  before->resume();  // no effect after cancel
  before->cancel();
  ASSERT_TRUE(done.waitForCount(1));

  auto during = session->dataTask(request("/block?1"), done.callback());
  during->resume();
  ASSERT_TRUE(server_.waitForRequests(1, kWatchdog));
  std::thread([during] { during->cancel(); }).join();  // from another thread
  ASSERT_TRUE(done.waitForCount(2));
  first->open();

  // cancelAllTasks() reaches running and suspended tasks; dropping the session, the rest.
  auto running = session->dataTask(request("/block?2"), done.callback());
  running->resume();
  auto suspended = session->dataTask(request("/ok"), done.callback());
  ASSERT_TRUE(server_.waitForRequests(2, kWatchdog));
  EXPECT_EQ(session->outstandingTaskCount(), 2u);
  session->cancelAllTasks();
  ASSERT_TRUE(done.waitForCount(4));

  session->dataTask(request("/ok"), done.callback())->resume();
  ASSERT_TRUE(done.waitForCount(5));
  auto pending = session->dataTask(request("/ok"), done.callback());
  EXPECT_TRUE(done.forgetQueue());
  session.reset();
  ASSERT_TRUE(done.waitForCount(6));
  second->open();
  platform_.settle();

  auto results = done.values();
  ASSERT_EQ(results.size(), 6u) << "each task completes exactly once";
  for (size_t i : {0u, 1u, 2u, 3u, 5u}) {
    ASSERT_TRUE(results[i].error) << i;
    EXPECT_EQ(*results[i].error, OrvexError(kHttpErrorDomain, kHttpErrorCancelled, "cancelled"));
    EXPECT_FALSE(results[i].response);
  }
  EXPECT_EQ(results[4].data, "ok");
  EXPECT_EQ(server_.requestCount(), 3u) << "a task cancelled before it started sends nothing";
  EXPECT_EQ(before->state(), HttpTask::State::kCompleted);
  EXPECT_EQ(pending->state(), HttpTask::State::kCompleted);
}

TEST_F(HttpSessionTest, DownloadsAndUploadsGoThroughFiles) {
  const std::string body(300000, 'd');
  server_.handle("GET", "/file", [&](const RecordedRequest&) { return Response{200, body, {}}; });
  auto session = makeSession();

  server_.failNextRequests(1);
  const HttpDataResult bad = fetch(*session, request("/file"), Kind::kDownload);
  ASSERT_TRUE(bad.error);
  EXPECT_TRUE(downloadedTo_.empty());
  const HttpDataResult good = fetch(*session, request("/file"), Kind::kDownload);
  ASSERT_FALSE(good.error) << good.error->describe();
  EXPECT_EQ(good.data, body);
  EXPECT_EQ(downloadMode_, 0600u);
  EXPECT_EQ(std::filesystem::path(downloadedTo_).parent_path(), temp_.path());
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path())) << "no file is left behind";

  // (An upload of a whole file: the end-to-end upload test, through the daemon.)
  const auto missing = fetch(*session, request("/up", "POST"), Kind::kUpload, temp_ / "missing");
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.error->code, CURLE_READ_ERROR);
  EXPECT_NE(missing.error->reason.find("missing"), std::string::npos);
  EXPECT_EQ(server_.requestCount(), 2u) << "a missing file sends nothing";
}

TEST_F(HttpSessionTest, FreshAnswersComeFromTheCacheAndStaleOnesAreRevalidated) {
  int version = 1;
  std::mutex mutex;
  server_.handle("GET", "/doc", [&](const RecordedRequest& request) {
    std::lock_guard lock(mutex);
    const std::string etag = "\"v" + std::to_string(version) + "\"";
    const std::vector<std::pair<std::string, std::string>> headers{{"ETag", etag},
                                                                   {"Cache-Control", "max-age=60"}};
    auto match = request.headers.find("If-None-Match");
    if (match != request.headers.end() && match->second == etag) return Response{304, "", headers};
    return Response{200, "body " + etag, headers};
  });
  auto session = makeSession(true);

  auto first = fetch(*session, request("/doc"));
  EXPECT_FALSE(first.response->fromCache);
  EXPECT_EQ(first.data, "body \"v1\"");
  EXPECT_FALSE(first.timing.empty());
  // A fresh answer needs no request, for data and download tasks alike.
  for (Kind kind : {Kind::kData, Kind::kDownload}) {
    auto cached = fetch(*session, request("/doc"), kind);
    EXPECT_TRUE(cached.response->fromCache);
    EXPECT_EQ(cached.data, "body \"v1\"");
    EXPECT_TRUE(cached.timing.empty()) << "a cached answer has no timing";
  }
  EXPECT_EQ(server_.requestCount(), 1u);

  // Stale: revalidated with its ETag, still the same; the 304 makes the entry fresh again.
  for (Kind kind : {Kind::kData, Kind::kDownload}) {
    platform_.advance(61s);
    auto revalidated = fetch(*session, request("/doc"), kind);
    EXPECT_EQ(server_.requests().back().headers.at("If-None-Match"), "\"v1\"");
    EXPECT_TRUE(revalidated.response->fromCache);
    EXPECT_EQ(revalidated.response->statusCode, 200) << "the stored status, not 304";
    EXPECT_EQ(revalidated.data, "body \"v1\"");
    EXPECT_TRUE(fetch(*session, request("/doc")).response->fromCache);
  }
  EXPECT_EQ(server_.requestCount(), 3u);

  {
    std::lock_guard lock(mutex);
    version = 2;
  }
  platform_.advance(61s);
  auto changed = fetch(*session, request("/doc"), Kind::kDownload);
  EXPECT_FALSE(changed.response->fromCache);
  EXPECT_EQ(changed.data, "body \"v2\"");
  auto again = fetch(*session, request("/doc"));
  EXPECT_TRUE(again.response->fromCache) << "a downloaded answer is stored too";
  EXPECT_EQ(again.data, "body \"v2\"");
  EXPECT_EQ(server_.requestCount(), 4u);
}

TEST_F(HttpSessionTest, ReloadAndUnsafeRequestsBypassOrClearTheCache) {
  int hits = 0;
  std::mutex mutex;
  server_.handle("GET", "/reload", [&](const RecordedRequest&) {
    std::lock_guard lock(mutex);
    return Response{200, "r" + std::to_string(++hits), {{"Cache-Control", "max-age=60"}}};
  });
  server_.handle("POST", "/reload", [](const RecordedRequest&) { return Response{204, "", {}}; });
  auto session = makeSession(true);

  EXPECT_EQ(fetch(*session, request("/reload")).data, "r1");
  HttpRequest reload = request("/reload");
  reload.cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
  EXPECT_EQ(fetch(*session, reload).data, "r2") << "the cache is not read";
  auto afterReload = fetch(*session, request("/reload"));
  EXPECT_TRUE(afterReload.response->fromCache);
  EXPECT_EQ(afterReload.data, "r2") << "but the reloaded answer was stored";
  fetch(*session, request("/reload", "POST"));
  EXPECT_EQ(fetch(*session, request("/reload")).data, "r3") << "a POST clears the stored answer";
  EXPECT_EQ(server_.requestCount(), 4u);
}

TEST_F(HttpSessionTest, TimingDescribesALoopbackTransferAndConnectionReuse) {
  server_.handle("GET", "/t", [](const RecordedRequest&) {
    return Response{200, std::string(5000, 't'), {}};
  });
  auto session = makeSession();
  const TaskTimingData timing = fetch(*session, request("/t")).timing;
  const TaskTimingData reused = fetch(*session, request("/t")).timing;

  for (const auto& [key, value] : timing) EXPECT_TRUE(key.starts_with(kTaskTimingPrefix)) << key;
  const double now =
      std::chrono::duration<double>(platform_.clock->wallNow().time_since_epoch()).count();
  EXPECT_DOUBLE_EQ(timingValue(timing, "fetchStart"), now) << "the session's clock dates it";
  double previous = now;
  for (const char* name : {"domainLookupStart", "domainLookupEnd", "connectStart", "connectEnd",
                           "requestStart", "requestEnd", "responseStart", "responseEnd"}) {
    EXPECT_GE(timingValue(timing, name), previous) << name;
    previous = timingValue(timing, name);
  }
  EXPECT_FALSE(timing.contains(taskTimingKey("secureConnectionStart"))) << "no TLS here";
  EXPECT_EQ(timing.at(taskTimingKey("connectionReused")).asBool(), false);
  EXPECT_EQ(*timing.at(taskTimingKey("interfaceIdentifier")).asString(), "lo");
  const PlistData* peer = timing.at(taskTimingKey("peerAddress")).asData();
  ASSERT_TRUE(peer);
  EXPECT_EQ(*peer, *encodeBsdSocketAddress("127.0.0.1", server_.port()));

  EXPECT_EQ(reused.at(taskTimingKey("connectionReused")).asBool(), true);
  EXPECT_FALSE(reused.contains(taskTimingKey("connectStart")));
  EXPECT_FALSE(reused.contains(taskTimingKey("domainLookupEnd")));
  const auto recorded = server_.requests();
  EXPECT_EQ(recorded[0].remotePort, recorded[1].remotePort) << "one connection for both";
}

// The request goes out on the thread that resumes the task while the network thread sleeps; the
// time-out libcurl sets then must still wake the network thread, or a stalled answer would hang.
TEST_F(HttpSessionTest, AStalledAnswerTimesOutThoughItsRequestWentOutOnTheCallersThread) {
  // The server's handler thread may still be waking when the test body returns: it shares the
  // gate with the test rather than pointing into the test's stack.
  auto release = std::make_shared<testing::Gate>();
  server_.handle("GET", "/stall", [release](const RecordedRequest&) {
    release->wait();
    return Response{200, "late", {}};
  });
  server_.handle("GET", "/t", [](const RecordedRequest&) { return Response{200, "t", {}}; });
  auto session = makeSession();
  (void)fetch(*session, request("/t"));  // the connection is up, the network thread idle
  HttpRequest stalled = request("/stall");
  stalled.timeout = 1s;
  const HttpDataResult result = fetch(*session, stalled);
  release->open();
  ASSERT_TRUE(result.error);
  EXPECT_EQ(result.error->code, CURLE_OPERATION_TIMEDOUT) << result.error->reason;
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
}

}  // namespace
}  // namespace orvex
