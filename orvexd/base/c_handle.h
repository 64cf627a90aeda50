// Ownership of handles that C libraries hand out: one deleter template, so that every handle is
// freed by the function of the library that allocated it, e.g.
//   std::unique_ptr<CURL, CFree<&curl_easy_cleanup>>
//   std::unique_ptr<EVP_MD_CTX, CFree<&EVP_MD_CTX_free>>
// This header includes no library's header: each user names the free function it needs.
#pragma once

#include <memory>

namespace orvex {

template <auto FreeFunction>
struct CFree {
  template <typename T>
  void operator()(T* pointer) const {
    if (pointer != nullptr) FreeFunction(pointer);
  }
};

// A handle owned with its library's free function.
template <typename T, auto FreeFunction>
using CHandle = std::unique_ptr<T, CFree<FreeFunction>>;

}  // namespace orvex
