// What components need of the bag controller: the current bag and the few decisions that hang on
// it. The controller owns the daemon's one bag; OrvexBagController is the implementation.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "orvexd/model/orv_bag.h"

namespace orvex {

class BagController {
 public:
  virtual ~BagController() = default;

  // The current bag, starting a fetch when there is none or it is stale; none until the first
  // bag is in. Callable from any thread.
  virtual std::shared_ptr<const ORVBag> currentBag() = 0;
  // The bag in memory, possibly stale; a stale one starts a background fetch.
  virtual std::shared_ptr<const ORVBag> cachedBagState() = 0;
  virtual std::optional<std::string> warmURL() = 0;
  // A search answer may announce a newer bag version under "bag"; fetches it when newer.
  virtual void forceFetchBag(const BagDictionary& response) = 0;
};

}  // namespace orvex
