// Marks work that should not be cut short ("bagFetch", "imageFetch", file writes, activities).
//
// A transaction is open from construction to destruction. The daemon counts open transactions
// by name and shows them through the Diagnostics interface (GetTransactions); they never delay
// the exit on SIGTERM or SIGINT, which is immediate by design: whatever must survive has been
// written before.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace orvex {

class ProcessTransaction {
 public:
  explicit ProcessTransaction(std::string name);
  ~ProcessTransaction();
  ProcessTransaction(ProcessTransaction&& other) noexcept;
  ProcessTransaction& operator=(ProcessTransaction&& other) noexcept;
  ProcessTransaction(const ProcessTransaction&) = delete;
  ProcessTransaction& operator=(const ProcessTransaction&) = delete;

  const std::string& name() const { return name_; }

  // Open transactions by name (names with none open are left out).
  static std::map<std::string, int64_t> openTransactions();
  static int64_t openCount();

 private:
  void close();
  std::string name_;
  bool open_ = false;
};

}  // namespace orvex
