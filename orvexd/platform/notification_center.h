// The in-process notification centre: components announce events by name ("ORVStartup",
// "ORVBagChangeNotification", ...) and others observe them without knowing each other.
//
// Observers run synchronously on the posting thread, in the order they were added; an observer
// that needs its component's queue hops onto it. An observer may be removed at any time, also
// from inside a notification; once its token is destroyed it is not called again (a call already
// under way on another thread finishes first, so two observers on two threads must not remove
// each other from inside their calls).
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

using NotificationUserInfo = std::map<std::string, std::any, std::less<>>;

struct Notification {
  std::string name;
  const void* sender = nullptr;
  NotificationUserInfo userInfo;

  // The user-information value under `key` if it holds a T.
  template <typename T>
  const T* userInfoValue(std::string_view key) const {
    auto found = userInfo.find(key);
    return found == userInfo.end() ? nullptr : std::any_cast<T>(&found->second);
  }
};

class NotificationCenter;
namespace detail {
struct ObserverEntry;
struct ObserverRegistry;
}  // namespace detail

// Removes its observer when destroyed.
class ObserverToken {
 public:
  ObserverToken() = default;
  ObserverToken(ObserverToken&&) noexcept = default;
  ObserverToken& operator=(ObserverToken&& other) noexcept;
  ~ObserverToken();
  void reset();
  // Whether the token still holds an observer.
  bool active() const { return entry_ != nullptr; }

 private:
  friend class NotificationCenter;
  explicit ObserverToken(std::shared_ptr<detail::ObserverEntry> entry) : entry_(std::move(entry)) {}
  std::shared_ptr<detail::ObserverEntry> entry_;
};

class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Observes notifications called `name`; with a sender, only those it posts.
  [[nodiscard]] ObserverToken addObserver(std::string name, const void* sender, Observer observer);
  void post(std::string_view name, const void* sender = nullptr,
            NotificationUserInfo userInfo = {});

  std::size_t observerCount(std::string_view name) const;

 private:
  std::shared_ptr<detail::ObserverRegistry> registry_;
};

}  // namespace orvex
