// The memory floor of the daemon's libraries: a process that loads every shared library named on
// its command line (the set a running daemon has mapped), initialises libcurl, fetches one URL
// over a handle it keeps, as the daemon keeps its connections, says "ready" and then sleeps until
// it is killed. Its USS and PSS at rest are what those libraries cost a process that does nothing
// else: their relocated data, what their constructors allocate, and the code pages they touch.
//
// Usage: orvex_bench_library_floor URL LIBRARY...
#include <curl/curl.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include "orvexd/base/c_handle.h"

namespace {

size_t discard(char* /*data*/, size_t size, size_t count, void* /*user*/) { return size * count; }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s URL LIBRARY...\n", argv[0]);
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    // The handles stay open for the life of the process, as the daemon's libraries stay loaded.
    if (dlopen(argv[i], RTLD_NOW | RTLD_GLOBAL) == nullptr) {
      std::fprintf(stderr, "cannot load %s: %s\n", argv[i], dlerror());
      return 1;
    }
  }
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return 1;
  orvex::CHandle<CURL, &curl_easy_cleanup> handle(curl_easy_init());
  if (!handle) return 1;
  curl_easy_setopt(handle.get(), CURLOPT_URL, argv[1]);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, discard);
  const CURLcode result = curl_easy_perform(handle.get());
  if (result != CURLE_OK) {
    std::fprintf(stderr, "GET %s: %s\n", argv[1], curl_easy_strerror(result));
    return 1;
  }
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) pause();
}
