#include "orvexd/platform/notification_center.h"

#include <algorithm>
#include <atomic>
#include <shared_mutex>

namespace orvex {

namespace detail {

struct ObserverRegistry {
  mutable std::mutex mutex;  // guards entries
  std::vector<std::shared_ptr<ObserverEntry>> entries;
};

struct ObserverEntry {
  std::string name;
  const void* sender;
  NotificationCenter::Observer observer;
  std::weak_ptr<ObserverRegistry> registry;
  // Held shared while the observer runs, exclusively while removing, so that removal waits for
  // a call under way on another thread (but not for one on its own thread: see reset()).
  std::shared_mutex calling;
  std::atomic<bool> removed = false;
};

}  // namespace detail

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
  if (this != &other) {
    reset();
    entry_ = std::move(other.entry_);
  }
  return *this;
}

ObserverToken::~ObserverToken() { reset(); }

namespace {
// The observers this thread is inside of, innermost last (posts may nest).
thread_local std::vector<const detail::ObserverEntry*> tCalling;
}  // namespace

void ObserverToken::reset() {
  if (!entry_) return;
  auto entry = std::move(entry_);
  if (auto registry = entry->registry.lock()) {
    std::lock_guard lock(registry->mutex);
    std::erase(registry->entries, entry);
  }
  if (std::find(tCalling.begin(), tCalling.end(), entry.get()) != tCalling.end()) {
    // Removed from inside its own call (perhaps through a nested post): the flag is enough, the
    // call is ours.
    entry->removed = true;
    return;
  }
  std::unique_lock lock(entry->calling);
  entry->removed = true;
}

NotificationCenter::NotificationCenter()
    : registry_(std::make_shared<detail::ObserverRegistry>()) {}
NotificationCenter::~NotificationCenter() = default;

ObserverToken NotificationCenter::addObserver(std::string name, const void* sender,
                                              Observer observer) {
  auto entry = std::make_shared<detail::ObserverEntry>();
  entry->name = std::move(name);
  entry->sender = sender;
  entry->observer = std::move(observer);
  entry->registry = registry_;
  std::lock_guard lock(registry_->mutex);
  registry_->entries.push_back(entry);
  return ObserverToken(std::move(entry));
}

void NotificationCenter::post(std::string_view name, const void* sender,
                              NotificationUserInfo userInfo) {
  std::vector<std::shared_ptr<detail::ObserverEntry>> matching;
  {
    std::lock_guard lock(registry_->mutex);
    for (const auto& entry : registry_->entries) {
      if (entry->name == name && (entry->sender == nullptr || entry->sender == sender)) {
        matching.push_back(entry);
      }
    }
  }
  const Notification notification{std::string(name), sender, std::move(userInfo)};
  for (const auto& entry : matching) {
    // A post nested inside this observer's own call must not take its lock a second time.
    const bool nested = std::find(tCalling.begin(), tCalling.end(), entry.get()) != tCalling.end();
    std::shared_lock<std::shared_mutex> lock;
    if (!nested) lock = std::shared_lock(entry->calling);
    if (entry->removed) continue;
    tCalling.push_back(entry.get());
    entry->observer(notification);
    tCalling.pop_back();
  }
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(registry_->mutex);
  return static_cast<std::size_t>(
      std::count_if(registry_->entries.begin(), registry_->entries.end(),
                    [&](const auto& entry) { return entry->name == name; }));
}

}  // namespace orvex
