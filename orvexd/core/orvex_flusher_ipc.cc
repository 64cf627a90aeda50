#include "orvexd/core/orvex_flusher_ipc.h"

#include <sdbus-c++/sdbus-c++.h>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/core/client_connection.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/background_flusher.h"
#include "orvexd/platform/bus_connection.h"

namespace orvex {

namespace {

const OrvexLog& flusherLog() { return OrvexLogForCategory(kOrvexLogFlusher); }

constexpr uint64_t kIntentSendingStream = 0;
constexpr uint64_t kIntentReceivingStream = 1;
constexpr uint64_t kIntentStopFlushing = 2;
constexpr uint64_t kIntentDump = 3;

std::string userAgentOf(const ClientConnection& connection) {
  if (auto state = connection.state()) return state->userAgent();
  auto configuration = connection.configuration();
  return configuration ? configuration->userAgent : std::string();
}

}  // namespace

OrvexFlusherIpc::OrvexFlusherIpc(Assembly& assembly, BusConnection& bus,
                                 GetClientConnections getClientConnections)
    : BusService(assembly, bus), getClientConnections_(std::move(getClientConnections)) {}

OrvexFlusherIpc::~OrvexFlusherIpc() {
  flusherLog().info("stopped listening for ORVFlusherListener connections");
}

const char* OrvexFlusherIpc::endpoint() { return kOrvexFlusherPath; }

void OrvexFlusherIpc::start() {
  exportObject();
  watchCallersLeaving([weakSelf = weak_from_this()](const std::string& name) {
    if (auto self = weakSelf.lock()) self->toolLeft(name);
  });
  flusherLog().info("started accepting connections :%@", std::string(endpoint()));
}

void OrvexFlusherIpc::exportObject() {
  object_ = sdbus::createObject(bus_.connection(), kOrvexFlusherPath);
  std::weak_ptr<OrvexFlusherIpc> weakSelf = weak_from_this();
  sdbus::IObject* object = object_.get();
  // No reply is owed, but a caller that asks for one gets it (empty, or the refusal), which
  // also tells it that the intent has been taken.
  object_->registerMethod("InitiateConnectionWithIntent")
      .onInterface(kOrvexFlusherInterface)
      .withInputParamNames("intent")
      .withNoReply()
      .implementedAs([weakSelf, object](uint64_t intent) {
        runBusHandler("InitiateConnectionWithIntent", [&] {
          const sdbus::Message& call = *object->getCurrentlyProcessedMessage();
          requireCallerOfOwnUser(call, "InitiateConnectionWithIntent");
          if (auto self = weakSelf.lock()) {
            self->initiateConnectionWithIntent(call.getSender(), intent);
          }
        });
      });
  object_->registerSignal("FlushedData")
      .onInterface(kOrvexFlusherInterface)
      .withParameters<std::vector<std::vector<uint8_t>>>("bodies");
  object_->registerSignal("ReceivedFeedbackDescription")
      .onInterface(kOrvexFlusherInterface)
      .withParameters<std::string>("description");
  object_->registerSignal("WorkDone").onInterface(kOrvexFlusherInterface);
  object_->finishRegistration();
}

void OrvexFlusherIpc::initiateConnectionWithIntent(const std::string& tool, uint64_t intent) {
  // A tool's first call is its connection: it becomes the remote listener the intents act on.
  if (!tools_.contains(tool)) {
    if (tools_.size() >= kMaxTools) {
      flusherLog().error("flusher connection from %@ refused, %lu tools connected", tool,
                         static_cast<unsigned long>(tools_.size()));
      throw sdbus::Error(kOrvexErrorLimitsExceeded, "too many tools are connected to the flusher");
    }
    tools_.insert(tool);
    remoteObject_ = tool;
    flusherLog().debug("flusher connection from %@", tool);
  }
  const std::string remote = remoteObject_.value_or(tool);
  switch (intent) {
    case kIntentSendingStream:
      sendingStreamListener_ = remote;
      flusherLog().info("new listener for flusher client sessions, delegate: %@", remote);
      break;
    case kIntentReceivingStream:
      receivingStreamListener_ = remote;
      receiving_ = true;
      flusherLog().info("new listener for client feedbacks, delegate: %@", remote);
      break;
    case kIntentStopFlushing:
      flusherLog().info("flushing stopped; dump command will start flushing again");
      if (assembly_.backgroundFlusher) assembly_.backgroundFlusher->setStopFlushing(true);
      emitToTool(remote, "WorkDone", [](sdbus::Signal&) {});
      break;
    case kIntentDump:
      dump(remote);
      break;
    default:
      flusherLog().info("Unsupported command yet: %lu", static_cast<unsigned long>(intent));
      break;
  }
}

void OrvexFlusherIpc::dump(const std::string& tool) {
  if (!sendingStreamListener_) {
    flusherLog().info("no listener for sending stream setting this client as remote");
    sendingStreamListener_ = tool;
  }
  if (!getClientConnections_) {
    finishDump();
    return;
  }
  flusherLog().info("new listener for flusher client sessions, delegate: %@", tool);
  auto connections = getClientConnections_();
  // A shared session is one session whichever connection flushes it.
  if (assembly_.sharedSession && connections.size() > 1) connections.resize(1);
  std::weak_ptr<OrvexFlusherIpc> weakSelf = weak_from_this();
  for (const auto& connection : connections) {
    connection->flushSession([weakSelf, agent = userAgentOf(*connection)] {
      auto self = weakSelf.lock();
      if (!self) return;
      flusherLog().info("session flushed because of dump command %@", agent);
      auto backgroundFlusher = self->assembly_.backgroundFlusher;
      if (!backgroundFlusher) {
        self->finishDump();
        return;
      }
      backgroundFlusher->insertFlushActivity([weakSelf] {
        if (auto flusher = weakSelf.lock()) flusher->finishDump();
      });
    });
  }
}

void OrvexFlusherIpc::finishDump() {
  if (assembly_.backgroundFlusher) assembly_.backgroundFlusher->setStopFlushing(false);
  bus_.run([weakSelf = weak_from_this()] {
    auto self = weakSelf.lock();
    if (self && self->remoteObject_) {
      self->emitToTool(*self->remoteObject_, "WorkDone", [](sdbus::Signal&) {});
    }
  });
}

void OrvexFlusherIpc::toolLeft(const std::string& tool) {
  if (tools_.erase(tool) == 0) return;
  flusherLog().info("listener invalidated");
  if (receivingStreamListener_ == tool) {
    receivingStreamListener_.reset();
    receiving_ = false;
    flusherLog().info("Removed receiving stream listener");
  }
  if (sendingStreamListener_ == tool) {
    sendingStreamListener_.reset();
    flusherLog().info("Removed sending stream listener");
  }
  if (remoteObject_ == tool) {
    remoteObject_.reset();
    flusherLog().info("Removed remote listener");
  }
}

void OrvexFlusherIpc::emitToTool(const std::string& tool, const char* signalName,
                                 const std::function<void(sdbus::Signal&)>& write) {
  try {
    auto signal = object_->createSignal(kOrvexFlusherInterface, signalName);
    write(signal);
    signal.setDestination(tool);
    object_->emitSignal(signal);
  } catch (const sdbus::Error& e) {
    flusherLog().error("remote proxy error: %@", e.getMessage());
  }
}

void OrvexFlusherIpc::sendDataToSendingStreamListener(std::vector<FlushedBody> bodies) {
  if (bodies.empty()) return;
  bus_.run([weakSelf = weak_from_this(), bodies = std::move(bodies)]() mutable {
    auto self = weakSelf.lock();
    if (!self || !self->sendingStreamListener_) return;
    // The bus refuses (and drops the sender for) a message over its limits: the bodies go in
    // as many signals as it takes to keep each well under them.
    std::vector<FlushedBody> batch;
    size_t batchBytes = 0;
    auto sendBatch = [&] {
      if (batch.empty()) return;
      self->emitToTool(*self->sendingStreamListener_, "FlushedData",
                       [&batch](sdbus::Signal& signal) { signal << batch; });
      batch.clear();
      batchBytes = 0;
    };
    for (auto& body : bodies) {
      if (body.size() > kMaxReplyBytes) {
        flusherLog().error("upload body of %lu bytes not sent to the listener, more than %lu",
                           static_cast<unsigned long>(body.size()),
                           static_cast<unsigned long>(kMaxReplyBytes));
        continue;
      }
      if (batchBytes + body.size() > kMaxReplyBytes) sendBatch();
      batchBytes += body.size();
      batch.push_back(std::move(body));
    }
    sendBatch();
  });
}

void OrvexFlusherIpc::sendDataToReceivingStreamListener(const OrvexFeedback& feedback) {
  const bool receiving = receiving_.load();
  // Describing a record costs an encoding: only for a listener or a debug log that shows it.
  if (!receiving && !flusherLog().enabled(LogLevel::kDebug)) return;
  std::string description = feedback.description();
  flusherLog().debug("id %lld agent %@ event %@", static_cast<long long>(feedback.queryId()),
                     feedback.userAgent(), description);
  if (!receiving) return;
  bus_.run([weakSelf = weak_from_this(), description = std::move(description)] {
    auto self = weakSelf.lock();
    if (!self || !self->receivingStreamListener_) return;
    self->emitToTool(*self->receivingStreamListener_, "ReceivedFeedbackDescription",
                     [&description](sdbus::Signal& signal) { signal << description; });
  });
}

}  // namespace orvex
