// System-wide notify names: short broadcasts that any process of the device may listen for,
// carrying nothing but their name (for example the news availability of the bag).
#pragma once

#include <string>

namespace orvex {

class SystemNotifier {
 public:
  virtual ~SystemNotifier() = default;
  // Broadcasts `name`. Callable from any thread; never blocks on the receivers.
  virtual void postNotification(const std::string& name) = 0;
};

}  // namespace orvex
