// OrvexFlusherIpc: the control channel of the feedback flusher, for diagnostic tools. The object
// /com/zelmor/orvexd/Flusher, interface com.zelmor.orvexd.Flusher (ListenToFlusher hands out its
// path), lets a tool watch the records clients report, receive the exact upload bodies as they
// are flushed, pause the scheduled uploads and force an upload of every open session (a dump).
//
//   InitiateConnectionWithIntent(t intent)  0: send me the upload bodies (FlushedData)
//                                           1: send me each reported record (ReceivedFeedback-
//                                              Description)
//                                           2: stop the scheduled uploads (then WorkDone)
//                                           3: dump: flush every client's session and upload
//                                              (WorkDone after each upload activity)
//
// A tool is one bus connection. Its first call makes it the remote listener, which the intents
// act on: 0 and 1 give it a stream slot, which it keeps until its name leaves the bus; WorkDone
// goes to it. The signals go to the slot holder's unique name only. Only peers running under the
// daemon's own user may call.
//
// Threading: the slots and the tool list belong to the bus thread, where calls and the
// NameOwnerChanged watch arrive and signals are sent. sendDataTo*StreamListener() may be called
// from any thread: they hand the data to the bus thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "orvexd/core/bus_service.h"
#include "orvexd/model/interfaces/flusher_listener.h"

namespace sdbus {
class Signal;
}  // namespace sdbus

namespace orvex {

class ClientConnection;

class OrvexFlusherIpc final : public FlusherListener,
                              public BusService,
                              public std::enable_shared_from_this<OrvexFlusherIpc> {
 public:
  // The current client connections, in acceptance order; empty once the service holding them
  // has gone. Called on the bus thread.
  using GetClientConnections = std::function<std::vector<std::shared_ptr<ClientConnection>>()>;

  // Without `getClientConnections` a dump flushes nothing and answers WorkDone at once.
  OrvexFlusherIpc(Assembly& assembly, BusConnection& bus,
                  GetClientConnections getClientConnections);
  ~OrvexFlusherIpc() override;

  // Exports the object and starts watching for tools leaving the bus. Call on the main thread,
  // before the bus name is owned, once the object is owned by a shared_ptr.
  void start();
  // The object path a tool is handed.
  static const char* endpoint();

  void sendDataToSendingStreamListener(std::vector<FlushedBody> bodies) override;
  void sendDataToReceivingStreamListener(const OrvexFeedback& feedback) override;

 private:
  // Bus thread only.
  void exportObject();
  void initiateConnectionWithIntent(const std::string& tool, uint64_t intent);
  void dump(const std::string& tool);
  void toolLeft(const std::string& tool);
  void emitToTool(const std::string& tool, const char* signalName,
                  const std::function<void(sdbus::Signal&)>& write);
  // The end of a dump: clears the stop switch and sends WorkDone to the remote listener. From
  // any thread.
  void finishDump();

  // Tools connected at once; a call from one more is refused until one leaves.
  static constexpr size_t kMaxTools = 32;

  const GetClientConnections getClientConnections_;
  std::set<std::string> tools_;                         // bus thread: unique names that called
  std::optional<std::string> remoteObject_;             // bus thread: the latest tool
  std::optional<std::string> sendingStreamListener_;    // bus thread
  std::optional<std::string> receivingStreamListener_;  // bus thread
  // Whether a tool holds the receiving slot, so that records are described only when needed;
  // written on the bus thread.
  std::atomic<bool> receiving_{false};
};

}  // namespace orvex
