// What the feedback pipeline needs of the session files on disk. OrvexPersistentStorage is the
// implementation.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvex {

class FileContainer;

class PersistentStorage {
 public:
  virtual ~PersistentStorage() = default;
  // A new, empty session file and a container open for writing it; null on failure.
  virtual std::shared_ptr<FileContainer> createFileContainerForWriting() = 0;
  // The finished sessions waiting for upload, oldest first (a snapshot).
  virtual std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() = 0;
  // Closes the container's file and lists it for upload.
  virtual void closeSessionWithFileContainer(std::shared_ptr<FileContainer> container) = 0;
  // Takes the container off the list, closes it and deletes its file.
  virtual void deleteSessionWithFileContainer(std::shared_ptr<FileContainer> container) = 0;
  // Calls `done` once every write posted to the files before this call has been made, so that
  // what those writes carried is in the files and survives the daemon being killed.
  virtual void afterPendingWrites(std::function<void()> done) = 0;
  // Keeps one crowdsourcing record (its JSON text) on disk until the crowdsourcing upload takes
  // it; a record that cannot be kept is counted as dropped.
  virtual void keepCrowdsourcingRecord(std::string json) = 0;
  // The crowdsourcing records kept so far (their JSON texts, oldest first), taken off the disk.
  virtual std::vector<std::string> takeCrowdsourcingRecords() = 0;
};

}  // namespace orvex
