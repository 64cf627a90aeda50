#include "orvexd/platform/http_timing.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <memory>

#include "orvexd/base/c_handle.h"

namespace orvex {

namespace {

// Family numbers of the BSD socket-address layout (Linux uses 10 for IPv6).
constexpr uint8_t kBsdFamilyInet = 2;
constexpr uint8_t kBsdFamilyInet6 = 30;

double secondsSince1970(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

}  // namespace

std::string taskTimingKey(std::string_view name) {
  std::string key(kTaskTimingPrefix);
  key += name;
  return key;
}

namespace {

// The interface that has a transfer's local address. Asking the kernel for the interface list
// costs more than the rest of a transfer's bookkeeping, and a reused connection keeps the local
// address, and so the interface, it was opened with: each thread remembers its last answer and
// asks again only for a transfer that opened a connection or came from another address.
std::optional<std::string> interfaceForTransfer(const std::string& localIp, bool reused) {
  struct Lookup {
    std::string address;
    std::optional<std::string> name;
  };
  thread_local std::optional<Lookup> last;
  if (!reused || !last || last->address != localIp) {
    last = Lookup{localIp, localInterfaceForAddress(localIp)};
  }
  return last->name;
}

}  // namespace

TaskTimingData makeTaskTimingData(WallTime fetchStart, const CurlTransferMetrics& metrics) {
  TaskTimingData timing;
  const double start = secondsSince1970(fetchStart);
  const auto at = [start](int64_t us) { return start + static_cast<double>(us) / 1e6; };
  const auto put = [&timing](std::string_view name, PlistValue value) {
    timing[taskTimingKey(name)] = std::move(value);
  };

  put("fetchStart", start);
  // A transfer that never sent its request opened no connection to reuse: whatever lookup or
  // connect it did was for a new one.
  const bool sentRequest = metrics.preTransferUs > 0;
  const bool reused = sentRequest && metrics.numConnects == 0;
  if (!reused && metrics.nameLookupUs > 0) {
    put("domainLookupStart", start);
    put("domainLookupEnd", at(metrics.nameLookupUs));
  }
  if (!reused && metrics.connectUs > 0) {
    put("connectStart", at(metrics.nameLookupUs));
    put("connectEnd", at(metrics.connectUs));
    if (metrics.tls && metrics.appConnectUs >= metrics.connectUs) {
      put("secureConnectionStart", at(metrics.connectUs));
      put("secureConnectionEnd", at(metrics.appConnectUs));
    }
  }
  if (metrics.preTransferUs > 0) {
    put("requestStart", at(metrics.preTransferUs));
    int64_t requestEnd = metrics.preTransferUs;
    if (metrics.uploadDoneUs && *metrics.uploadDoneUs > requestEnd) {
      requestEnd = *metrics.uploadDoneUs;
      // The request cannot have ended after the answer began or the transfer ended.
      if (metrics.startTransferUs > 0 && requestEnd > metrics.startTransferUs) {
        requestEnd = metrics.startTransferUs;
      }
    }
    put("requestEnd", at(requestEnd));
  }
  if (metrics.startTransferUs > 0) {
    put("responseStart", at(metrics.startTransferUs));
    put("responseEnd", at(std::max(metrics.totalUs, metrics.startTransferUs)));
  }
  if (sentRequest) put("connectionReused", reused);
  if (!metrics.localIp.empty()) {
    if (auto name = interfaceForTransfer(metrics.localIp, reused)) {
      put("interfaceIdentifier", *name);
    }
  }
  if (!metrics.primaryIp.empty()) {
    if (auto bytes = encodeBsdSocketAddress(metrics.primaryIp, metrics.primaryPort)) {
      put("peerAddress", std::move(*bytes));
    }
  }
  return timing;
}

std::optional<PlistData> encodeBsdSocketAddress(std::string_view address, int64_t port) {
  if (port < 0 || port > 65535 || address.empty()) return std::nullopt;
  // The length, the family and the port in network order, then the address.
  const auto socketAddress = [port](uint8_t length, uint8_t family) {
    PlistData bytes(length, 0);
    bytes[0] = length;
    bytes[1] = family;
    bytes[2] = static_cast<uint8_t>(port >> 8);
    bytes[3] = static_cast<uint8_t>(port & 0xff);
    return bytes;
  };

  std::string text(address);
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    PlistData bytes = socketAddress(16, kBsdFamilyInet);
    std::memcpy(&bytes[4], &v4, 4);
    return bytes;
  }

  uint32_t scope = 0;
  if (auto percent = text.find('%'); percent != std::string::npos) {
    const std::string zone = text.substr(percent + 1);
    text.resize(percent);
    if (zone.empty()) return std::nullopt;
    if (zone.find_first_not_of("0123456789") == std::string::npos) {
      const auto [end, status] = std::from_chars(zone.data(), zone.data() + zone.size(), scope);
      if (status != std::errc() || end != zone.data() + zone.size()) return std::nullopt;
    } else {
      scope = if_nametoindex(zone.c_str());  // 0 (unknown) when there is no such interface
    }
  }
  in6_addr v6{};
  if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return std::nullopt;
  PlistData bytes = socketAddress(28, kBsdFamilyInet6);
  std::memcpy(&bytes[8], &v6, 16);
  std::memcpy(&bytes[24], &scope, 4);
  return bytes;
}

std::optional<std::string> localInterfaceForAddress(std::string_view address) {
  std::string text(address);
  if (auto percent = text.find('%'); percent != std::string::npos) text.resize(percent);
  in_addr v4{};
  in6_addr v6{};
  const bool isV4 = inet_pton(AF_INET, text.c_str(), &v4) == 1;
  if (!isV4 && inet_pton(AF_INET6, text.c_str(), &v6) != 1) return std::nullopt;

  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return std::nullopt;
  std::unique_ptr<ifaddrs, CFree<&freeifaddrs>> owner(list);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
    if (isV4 && entry->ifa_addr->sa_family == AF_INET) {
      sockaddr_in in{};
      std::memcpy(&in, entry->ifa_addr, sizeof in);
      if (std::memcmp(&in.sin_addr, &v4, sizeof v4) == 0) return std::string(entry->ifa_name);
    } else if (!isV4 && entry->ifa_addr->sa_family == AF_INET6) {
      sockaddr_in6 in6{};
      std::memcpy(&in6, entry->ifa_addr, sizeof in6);
      if (std::memcmp(&in6.sin6_addr, &v6, sizeof v6) == 0) return std::string(entry->ifa_name);
    }
  }
  return std::nullopt;
}

}  // namespace orvex
