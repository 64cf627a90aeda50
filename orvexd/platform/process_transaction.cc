#include "orvexd/platform/process_transaction.h"

#include <mutex>
#include <utility>

namespace orvex {

namespace {
struct Registry {
  std::mutex mutex;  // guards open
  std::map<std::string, int64_t> open;
};
Registry& registry() {
  static Registry instance;
  return instance;
}
}  // namespace

ProcessTransaction::ProcessTransaction(std::string name) : name_(std::move(name)), open_(true) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  ++r.open[name_];
}

ProcessTransaction::~ProcessTransaction() { close(); }

ProcessTransaction::ProcessTransaction(ProcessTransaction&& other) noexcept
    : name_(std::move(other.name_)), open_(std::exchange(other.open_, false)) {}

ProcessTransaction& ProcessTransaction::operator=(ProcessTransaction&& other) noexcept {
  if (this != &other) {
    close();
    name_ = std::move(other.name_);
    open_ = std::exchange(other.open_, false);
  }
  return *this;
}

void ProcessTransaction::close() {
  if (!open_) return;
  open_ = false;
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  if (auto found = r.open.find(name_); found != r.open.end() && --found->second == 0) {
    r.open.erase(found);
  }
}

std::map<std::string, int64_t> ProcessTransaction::openTransactions() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return r.open;
}

int64_t ProcessTransaction::openCount() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  int64_t total = 0;
  for (const auto& [name, count] : r.open) total += count;
  return total;
}

}  // namespace orvex
