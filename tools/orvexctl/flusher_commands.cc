// orvexctl's commands on the flusher control channel: watching the records clients report,
// dumping every open session to the back-end, stopping the scheduled uploads, and running a
// background activity now.
#include <functional>

#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

// ---- the flusher control channel ----

// How long dump and stop wait for the daemon's WorkDone unless --timeout says otherwise.
constexpr auto kWorkDoneWait = 60s;

// What the flusher's signals hand the command, shared with the handlers (which run on the
// client's bus thread and may outlive the command's stack frame).
struct FlusherEvents : std::enable_shared_from_this<FlusherEvents> {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::vector<uint8_t>> bodies;
  size_t workDone = 0;

  std::function<void()> workDoneHandler() {
    return [self = shared_from_this()] {
      std::lock_guard lock(self->mutex);
      ++self->workDone;
      self->changed.notify_all();
    };
  }
  // Waits for the first WorkDone (--timeout, else kWorkDoneWait); says on standard error that
  // the daemon did not `what` when it does not come.
  bool awaitWorkDone(const Options& options, const char* what) {
    const auto wait = options.timeout.value_or(kWorkDoneWait);
    std::unique_lock lock(mutex);
    if (changed.wait_for(lock, wait, [this] { return workDone > 0; })) return true;
    std::cerr << "orvexctl: the daemon did not " << what << " within " << wait.count() << " ms\n";
    return false;
  }
};

int runFlusherWatch(Session& session, const Options& options) {
  auto printing = std::make_shared<std::mutex>();
  const bool asJson = options.json;
  OrvexClient::FlusherHandlers handlers;
  handlers.receivedFeedbackDescription = [printing, asJson](std::string description) {
    std::lock_guard lock(*printing);
    if (asJson) {
      auto parsed = json::parse(description, nullptr, false);
      std::cout << json{{"description", parsed.is_discarded() ? json(description) : parsed}}.dump()
                << std::endl;
    } else {
      std::cout << description << std::endl;
    }
  };
  session.client().onFlusherSignals(std::move(handlers));
  auto taken = session.client().initiateFlusherIntent(kFlusherIntentReceivingStream);
  if (!taken) return busFailure("InitiateConnectionWithIntent", taken.error());
  if (!asJson) std::cerr << "watching the records clients report; interrupt to stop\n";
  // Records arrive on the client's bus thread; this one only waits.
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock lock(mutex);
  if (options.timeout) {
    never.wait_for(lock, *options.timeout, [] { return false; });
  } else {
    never.wait(lock, [] { return false; });
  }
  return kExitOk;
}

int runFlusherDump(Session& session, const Options& options) {
  auto events = std::make_shared<FlusherEvents>();
  OrvexClient::FlusherHandlers handlers;
  handlers.flushedData = [events](std::vector<std::vector<uint8_t>> bodies) {
    std::lock_guard lock(events->mutex);
    for (auto& body : bodies) events->bodies.push_back(std::move(body));
  };
  handlers.workDone = events->workDoneHandler();
  session.client().onFlusherSignals(std::move(handlers));
  for (const uint64_t intent : {kFlusherIntentSendingStream, kFlusherIntentDump}) {
    auto taken = session.client().initiateFlusherIntent(intent);
    if (!taken) return busFailure("InitiateConnectionWithIntent", taken.error());
  }
  if (!events->awaitWorkDone(options, "finish the dump")) return kExitFailure;
  std::vector<std::vector<uint8_t>> bodies;
  {
    std::lock_guard lock(events->mutex);
    bodies = events->bodies;
  }
  json out = json::array();
  for (const auto& body : bodies) {
    std::string error;
    const auto text = inflateUploadBody(body, kMaxInflatedUploadBody, &error);
    if (options.json) {
      json entry{{"size", body.size()}};
      auto parsed = text ? json::parse(*text, nullptr, false) : json();
      if (text && !parsed.is_discarded()) {
        entry["json"] = std::move(parsed);
      } else {
        entry["error"] = text ? "the inflated body is not JSON" : error;
      }
      out.push_back(std::move(entry));
    } else if (text) {
      std::cout << "upload body: " << body.size() << " bytes, " << text->size()
                << " bytes inflated\n";
    } else {
      std::cout << "upload body: " << body.size() << " bytes (" << error << ")\n";
    }
  }
  if (options.json) {
    printJson(out);
  } else {
    std::cout << "dump done: " << bodies.size() << " upload bod"
              << (bodies.size() == 1 ? "y" : "ies") << "\n";
  }
  return kExitOk;
}

int runFlusherStop(Session& session, const Options& options) {
  auto events = std::make_shared<FlusherEvents>();
  OrvexClient::FlusherHandlers handlers;
  handlers.workDone = events->workDoneHandler();
  session.client().onFlusherSignals(std::move(handlers));
  auto taken = session.client().initiateFlusherIntent(kFlusherIntentStopFlushing);
  if (!taken) return busFailure("InitiateConnectionWithIntent", taken.error());
  if (!events->awaitWorkDone(options, "confirm")) return kExitFailure;
  if (options.json) {
    printJson({{"stopped", true}});
  } else {
    std::cout << "scheduled uploads stopped; the next dump starts them again\n";
  }
  return kExitOk;
}

}  // namespace

int runFlusher(Session& session, const Options& options) {
  const auto& action = options.arguments[0];
  if (action == "watch") return runFlusherWatch(session, options);
  if (action == "dump") return runFlusherDump(session, options);
  return runFlusherStop(session, options);
}

int runActivity(Session& session, const Options& options) {
  const auto& identifier = options.arguments[1];
  auto ran = session.client().runActivity(identifier);
  if (!ran) return busFailure("RunActivity", ran.error());
  if (options.json) {
    printJson({{"activity", identifier}, {"ran", true}});
  } else {
    std::cout << "ran activity " << identifier << "\n";
  }
  return kExitOk;
}

}  // namespace orvex::ctl
