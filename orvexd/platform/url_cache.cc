#include "orvexd/platform/url_cache.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <list>
#include <mutex>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/property_list.h"
#include "orvexd/base/text_util.h"
#include "orvexd/platform/file_manager.h"

namespace orvex {

namespace {

namespace fs = std::filesystem;

const OrvexLog& cacheLog() { return OrvexLogForCategory(kOrvexLogCaching); }

// Disk entry layout (all integers little-endian):
//   magic "ORVXURLC", u32 version,
//   u32 length + key URL, u32 length + response URL, i64 status,
//   u32 header count, then per header u32 length + name, u32 length + value,
//   i64 storedAt and u8 hasFreshUntil + i64 freshUntil (microseconds since 1970),
//   u64 length + body, and nothing after it.
constexpr std::string_view kMagic = "ORVXURLC";
constexpr uint32_t kFormatVersion = 1;
constexpr uint32_t kMaxHeaderCount = 4096;
constexpr std::string_view kTemporaryPrefix = "tmp-";
constexpr auto kHeuristicFreshnessCap = std::chrono::hours(24);

bool isCacheableStatus(int64_t status) {
  return status == 200 || status == 203 || status == 301 || status == 404 || status == 410;
}

std::string asciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// Cache-Control directives by lower-case name, with their values unquoted.
std::unordered_map<std::string, std::string> parseCacheControl(const HttpHeaderMap& headers) {
  std::unordered_map<std::string, std::string> directives;
  auto found = headers.find("Cache-Control");
  if (found == headers.end()) return directives;
  std::string_view rest = found->second;
  while (!rest.empty()) {
    size_t comma = rest.find(',');
    std::string_view item = trimWhitespace(rest.substr(0, comma));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    if (item.empty()) continue;
    size_t equals = item.find('=');
    std::string name = asciiLower(trimWhitespace(item.substr(0, equals)));
    std::string value;
    if (equals != std::string_view::npos) {
      std::string_view raw = trimWhitespace(item.substr(equals + 1));
      if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
        raw = raw.substr(1, raw.size() - 2);
      }
      value = std::string(raw);
    }
    directives.emplace(std::move(name), std::move(value));
  }
  return directives;
}

// Delta-seconds, capped so that adding them to a time point cannot overflow.
std::optional<int64_t> parseSeconds(std::string_view text) {
  constexpr int64_t kLongest = int64_t{10} * 366 * 24 * 3600;  // ten years
  int64_t value = 0;
  auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || end != text.data() + text.size()) return std::nullopt;
  if (status == std::errc::result_out_of_range) return text.front() == '-' ? 0 : kLongest;
  if (status != std::errc() || value < 0) return std::nullopt;
  return std::min(value, kLongest);
}

std::optional<WallTime> parseHttpDate(const HttpHeaderMap& headers, std::string_view name) {
  auto found = headers.find(name);
  if (found == headers.end()) return std::nullopt;
  const time_t seconds = curl_getdate(found->second.c_str(), nullptr);
  if (seconds == -1) return std::nullopt;
  // Clamped to 1970-2096, so that the sums and differences made of dates cannot overflow.
  constexpr time_t kLatest = 4'000'000'000;
  return std::chrono::system_clock::from_time_t(std::clamp<time_t>(seconds, 0, kLatest));
}

bool hasValidator(const HttpHeaderMap& headers) {
  return headers.contains("ETag") || headers.contains("Last-Modified");
}

int64_t toMicros(WallTime time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}
// None for a count a WallTime cannot hold (only a damaged file has one).
std::optional<WallTime> fromMicros(int64_t micros) {
  constexpr int64_t kLimit =
      std::chrono::duration_cast<std::chrono::microseconds>(WallTime::duration::max()).count();
  if (micros > kLimit || micros < -kLimit) return std::nullopt;
  return WallTime(
      std::chrono::duration_cast<WallTime::duration>(std::chrono::microseconds(micros)));
}

std::string sha256Hex(std::string_view text) {
  std::unique_ptr<EVP_MD_CTX, CFree<&EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), text.data(), text.size()) != 1 ||
      EVP_DigestFinal_ex(context.get(), digest, &length) != 1) {
    return {};
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xf];
  }
  return hex;
}

// What a file takes on disk: its allocated blocks, which a small file rounds up to a whole block
// of the file system. A file system that has not allocated a new file's blocks yet reports
// none; its size rounded up to the block size stands in for them.
uint64_t diskFootprint(const struct stat& info) {
  const auto blocks = static_cast<uint64_t>(info.st_blocks) * 512;
  if (blocks > 0 || info.st_size <= 0) return blocks;
  const auto blockSize = static_cast<uint64_t>(info.st_blksize > 0 ? info.st_blksize : 4096);
  return (static_cast<uint64_t>(info.st_size) + blockSize - 1) / blockSize * blockSize;
}

bool isEntryFileName(std::string_view name) {
  return name.size() == 64 && name.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

class Writer {
 public:
  void bytes(std::string_view data) { out_.append(data); }
  void u8(uint8_t value) { out_ += static_cast<char>(value); }
  void u32(uint32_t value) { integer(value, 4); }
  void u64(uint64_t value) { integer(value, 8); }
  void i64(int64_t value) { integer(static_cast<uint64_t>(value), 8); }
  void text(std::string_view data) {
    u32(static_cast<uint32_t>(data.size()));
    bytes(data);
  }
  std::string take() { return std::move(out_); }

 private:
  void integer(uint64_t value, int width) {
    for (int i = 0; i < width; ++i) out_ += static_cast<char>((value >> (8 * i)) & 0xff);
  }
  std::string out_;
};

// Reads the disk layout; every read checks the bytes left and fails instead of overrunning.
class Reader {
 public:
  explicit Reader(std::string_view data) : data_(data) {}
  bool bytes(size_t count, std::string_view& out) {
    if (count > data_.size() - position_) return false;
    out = data_.substr(position_, count);
    position_ += count;
    return true;
  }
  bool u8(uint8_t& value) {
    uint64_t wide = 0;
    if (!integer(1, wide)) return false;
    value = static_cast<uint8_t>(wide);
    return true;
  }
  bool u32(uint32_t& value) {
    uint64_t wide = 0;
    if (!integer(4, wide)) return false;
    value = static_cast<uint32_t>(wide);
    return true;
  }
  bool u64(uint64_t& value) { return integer(8, value); }
  bool i64(int64_t& value) {
    uint64_t wide = 0;
    if (!integer(8, wide)) return false;
    value = static_cast<int64_t>(wide);
    return true;
  }
  bool text(std::string& out) {
    uint32_t length = 0;
    std::string_view view;
    if (!u32(length) || !bytes(length, view)) return false;
    out = std::string(view);
    return true;
  }
  bool atEnd() const { return position_ == data_.size(); }

 private:
  bool integer(size_t width, uint64_t& value) {
    std::string_view view;
    if (!bytes(width, view)) return false;
    value = 0;
    for (size_t i = 0; i < width; ++i) {
      value |= static_cast<uint64_t>(static_cast<unsigned char>(view[i])) << (8 * i);
    }
    return true;
  }
  std::string_view data_;
  size_t position_ = 0;
};

std::string encodeEntry(const std::string& key, const CachedResponse& entry) {
  Writer writer;
  writer.bytes(kMagic);
  writer.u32(kFormatVersion);
  writer.text(key);
  writer.text(entry.response.url);
  writer.i64(entry.response.statusCode);
  writer.u32(static_cast<uint32_t>(entry.response.headers.size()));
  for (const auto& [name, value] : entry.response.headers) {
    writer.text(name);
    writer.text(value);
  }
  writer.i64(toMicros(entry.storedAt));
  writer.u8(entry.freshUntil ? 1 : 0);
  writer.i64(entry.freshUntil ? toMicros(*entry.freshUntil) : 0);
  writer.u64(entry.body.size());
  writer.bytes(entry.body);
  return writer.take();
}

// The entry stored in `data` for `key`, or a reason why the file cannot be used.
std::optional<CachedResponse> decodeEntry(std::string_view data, const std::string& key,
                                          std::string& why) {
  Reader reader(data);
  std::string_view magic;
  uint32_t version = 0;
  if (!reader.bytes(kMagic.size(), magic) || magic != kMagic) {
    why = "bad magic";
    return std::nullopt;
  }
  if (!reader.u32(version) || version != kFormatVersion) {
    why = "unknown version";
    return std::nullopt;
  }
  std::string storedKey;
  CachedResponse entry;
  uint32_t headerCount = 0;
  if (!reader.text(storedKey) || !reader.text(entry.response.url) ||
      !reader.i64(entry.response.statusCode) || !reader.u32(headerCount) ||
      headerCount > kMaxHeaderCount) {
    why = "truncated header";
    return std::nullopt;
  }
  if (storedKey != key) {
    why = "URL differs";
    return std::nullopt;
  }
  for (uint32_t i = 0; i < headerCount; ++i) {
    std::string name;
    std::string value;
    if (!reader.text(name) || !reader.text(value)) {
      why = "truncated header field";
      return std::nullopt;
    }
    entry.response.headers.emplace(std::move(name), std::move(value));
  }
  int64_t storedAt = 0;
  uint8_t hasFreshUntil = 0;
  int64_t freshUntil = 0;
  uint64_t bodyLength = 0;
  std::string_view body;
  if (!reader.i64(storedAt) || !reader.u8(hasFreshUntil) || hasFreshUntil > 1 ||
      !reader.i64(freshUntil) || !reader.u64(bodyLength) || bodyLength > data.size() ||
      !reader.bytes(static_cast<size_t>(bodyLength), body) || !reader.atEnd()) {
    why = "truncated or overlong body";
    return std::nullopt;
  }
  const auto stored = fromMicros(storedAt);
  const auto fresh = fromMicros(freshUntil);
  if (!stored || !fresh) {
    why = "time out of range";
    return std::nullopt;
  }
  entry.storedAt = *stored;
  if (hasFreshUntil != 0) entry.freshUntil = *fresh;
  entry.body = std::string(body);
  entry.response.fromCache = true;
  return entry;
}

uint64_t entryCost(const std::string& key, const CachedResponse& entry) {
  uint64_t cost = key.size() + entry.response.url.size() + entry.body.size();
  for (const auto& [name, value] : entry.response.headers) cost += name.size() + value.size();
  return cost;
}

// Entries by key, most recently used first, with the sum of their costs.
template <class Value>
class LruIndex {
 public:
  struct Entry {
    std::string key;
    Value value;
    uint64_t cost = 0;
  };

  // Puts the entry in front, in place of one of the same key.
  void insert(const std::string& key, Value value, uint64_t cost) {
    erase(key);
    entries_.push_front(Entry{key, std::move(value), cost});
    index_[key] = entries_.begin();
    usage_ += cost;
  }
  void erase(const std::string& key) {
    const auto found = index_.find(key);
    if (found == index_.end()) return;
    usage_ -= found->second->cost;
    entries_.erase(found->second);
    index_.erase(found);
  }
  // The entry, moved in front as the most recently used; null when there is none.
  Entry* use(const std::string& key) {
    const auto found = index_.find(key);
    if (found == index_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, found->second);
    return &*found->second;
  }
  bool contains(const std::string& key) const { return index_.contains(key); }
  bool empty() const { return entries_.empty(); }
  // The key of the least recently used entry; not when empty().
  std::string oldestKey() const { return entries_.back().key; }
  uint64_t usage() const { return usage_; }
  void clear() {
    entries_.clear();
    index_.clear();
    usage_ = 0;
  }

 private:
  std::list<Entry> entries_;
  std::unordered_map<std::string, typename std::list<Entry>::iterator> index_;
  uint64_t usage_ = 0;
};

}  // namespace

struct UrlCache::Impl {
  // Files on disk carry no value in the index: the blocks they take are their cost.
  struct OnDisk {};

  Impl(uint64_t memory, uint64_t disk, std::string dir, Clock& c)
      : memoryCapacity(memory), diskCapacity(disk), directory(std::move(dir)), clock(c) {}

  // --- everything below runs with `mutex` held ---

  void memoryInsert(const std::string& key, const CachedResponse& value) {
    memory.erase(key);
    const uint64_t cost = entryCost(key, value);
    if (cost > memoryCapacity) return;
    memory.insert(key, value, cost);
    while (memory.usage() > memoryCapacity && !memory.empty()) memory.erase(memory.oldestKey());
  }

  bool diskEnabled() const { return !directory.empty() && diskCapacity > 0 && directoryReady; }

  // Records a file in the index as the most recently used one.
  void diskTouch(const std::string& fileName, uint64_t size) { disk.insert(fileName, {}, size); }

  void diskRemove(const std::string& fileName) {
    disk.erase(fileName);
    std::error_code error;
    fs::remove(fs::path(directory) / fileName, error);
    if (error) cacheLog().error("cannot remove cache file %@: %@", fileName, error.message());
  }

  void diskEvict() {
    while (disk.usage() > diskCapacity && !disk.empty()) diskRemove(disk.oldestKey());
  }

  bool diskWrite(const std::string& key, const CachedResponse& value) {
    const std::string fileName = sha256Hex(key);
    if (fileName.empty()) return false;
    const std::string bytes = encodeEntry(key, value);
    const fs::path target = fs::path(directory) / fileName;
    std::error_code linkError;
    if (fs::is_symlink(fs::symlink_status(target, linkError))) {
      cacheLog().error("not writing cache file %@: it is a symbolic link", fileName);
      return false;
    }
    std::string temporary = (fs::path(directory) / (std::string(kTemporaryPrefix) + "XXXXXX"));
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
      cacheLog().error("cannot create a cache file in %@: %@", directory, std::strerror(errno));
      return false;
    }
    std::error_code error = writeAll(fd, bytes);
    struct stat written {};
    if (!error && ::fstat(fd, &written) != 0)
      error = std::error_code(errno, std::generic_category());
    if (::close(fd) != 0 && !error) error = std::error_code(errno, std::generic_category());
    if (!error && ::rename(temporary.c_str(), target.c_str()) != 0) {
      error = std::error_code(errno, std::generic_category());
    }
    if (error) {
      ::unlink(temporary.c_str());
      cacheLog().error("cannot write cache file %@: %@", fileName, error.message());
      diskRemove(fileName);  // whatever was there is no longer indexed consistently
      return false;
    }
    diskTouch(fileName, diskFootprint(written));
    diskEvict();
    return true;
  }

  std::optional<CachedResponse> diskRead(const std::string& key) {
    const std::string fileName = sha256Hex(key);
    if (fileName.empty() || !disk.contains(fileName)) return std::nullopt;
    const fs::path path = fs::path(directory) / fileName;
    std::error_code error;
    auto bytes = FileManager(DirectoryEnvironment{}).readFile(path, error);
    if (!bytes) {
      cacheLog().error("cannot read cache file %@: %@", fileName, error.message());
      diskRemove(fileName);
      return std::nullopt;
    }
    std::string why;
    auto entry = decodeEntry(
        std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()), key, why);
    if (!entry) {
      cacheLog().error("dropping damaged cache file %@: %@", fileName, why);
      diskRemove(fileName);
      return std::nullopt;
    }
    disk.use(fileName);
    // Keep the order of use across restarts: the index is rebuilt from modification times.
    ::utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
    return entry;
  }

  void scanDirectory() {
    // Created 0700 and never through a link; FileManager logs a link refused.
    std::error_code error = FileManager(DirectoryEnvironment{}).ensurePrivateDirectory(directory);
    if (error) {
      cacheLog().error("cannot create cache directory %@: %@", directory, error.message());
      return;
    }
    struct Found {
      std::string name;
      uint64_t size;
      std::pair<int64_t, int64_t> modified;  // seconds, nanoseconds
    };
    std::vector<Found> found;
    for (auto it = fs::directory_iterator(directory, error);
         !error && it != fs::directory_iterator(); it.increment(error)) {
      const std::string name = it->path().filename().string();
      std::error_code entryError;
      if (name.starts_with(kTemporaryPrefix)) {
        fs::remove(it->path(), entryError);  // left over from an interrupted write
        continue;
      }
      if (!isEntryFileName(name)) continue;
      struct stat info {};
      if (::lstat(it->path().c_str(), &info) != 0) continue;
      if (S_ISLNK(info.st_mode)) {
        cacheLog().error("ignoring cache file %@: it is a symbolic link", name);
        continue;
      }
      if (!S_ISREG(info.st_mode)) continue;
      found.push_back(
          Found{name, diskFootprint(info), {info.st_mtim.tv_sec, info.st_mtim.tv_nsec}});
    }
    if (error) {
      cacheLog().error("cannot list cache directory %@: %@", directory, error.message());
    }
    std::sort(found.begin(), found.end(),
              [](const Found& a, const Found& b) { return a.modified < b.modified; });
    for (const Found& entry : found) diskTouch(entry.name, entry.size);  // newest ends in front
    directoryReady = true;
    diskEvict();
  }

  const uint64_t memoryCapacity;
  const uint64_t diskCapacity;
  const std::string directory;
  Clock& clock;

  mutable std::mutex mutex;
  LruIndex<CachedResponse> memory;  // by URL
  LruIndex<OnDisk> disk;            // by file name
  bool directoryReady = false;
};

std::string encodeUrlCacheEntry(const std::string& key, const CachedResponse& entry) {
  return encodeEntry(key, entry);
}

std::optional<CachedResponse> decodeUrlCacheEntry(std::string_view data, const std::string& key,
                                                  std::string& why) {
  return decodeEntry(data, key, why);
}

UrlCache::UrlCache(uint64_t memoryCapacity, uint64_t diskCapacity, std::string directory,
                   Clock& clock)
    : impl_(std::make_unique<Impl>(memoryCapacity, diskCapacity, std::move(directory), clock)) {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->directory.empty() && diskCapacity > 0) impl_->scanDirectory();
}

UrlCache::~UrlCache() = default;

uint64_t UrlCache::memoryCapacity() const { return impl_->memoryCapacity; }
uint64_t UrlCache::diskCapacity() const { return impl_->diskCapacity; }

uint64_t UrlCache::currentMemoryUsage() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->memory.usage();
}

uint64_t UrlCache::currentDiskUsage() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->disk.usage();
}

std::optional<CachedResponse> UrlCache::cachedResponseForRequest(const HttpRequest& request) const {
  if (request.method != "GET") return std::nullopt;
  std::lock_guard lock(impl_->mutex);
  if (const auto* found = impl_->memory.use(request.url)) {
    // Keep the disk order in step so that entries served from memory are not evicted first.
    if (impl_->diskEnabled()) impl_->disk.use(sha256Hex(request.url));
    return found->value;
  }
  if (!impl_->diskEnabled()) return std::nullopt;
  auto entry = impl_->diskRead(request.url);
  if (entry) impl_->memoryInsert(request.url, *entry);
  return entry;
}

bool UrlCache::storeResponse(const HttpRequest& request, const HttpResponse& response,
                             const std::string& body) {
  if (request.method != "GET" || !isCacheableStatus(response.statusCode)) return false;
  const auto requestDirectives = parseCacheControl(request.headers);
  const auto directives = parseCacheControl(response.headers);
  if (requestDirectives.contains("no-store") || directives.contains("no-store")) return false;
  if (auto vary = response.headers.find("Vary");
      vary != response.headers.end() && trimWhitespace(vary->second) == "*") {
    return false;
  }
  // One answer may take at most 5% of the disk tier (of the memory tier when there is no disk).
  const uint64_t tier = impl_->diskCapacity > 0 ? impl_->diskCapacity : impl_->memoryCapacity;
  if (body.size() > tier / 20) return false;

  const WallTime now = impl_->clock.wallNow();
  std::optional<WallTime> freshUntil;
  if (!directives.contains("no-cache")) {
    const auto date = parseHttpDate(response.headers, "Date");
    int64_t age = 0;
    if (auto header = response.headers.find("Age"); header != response.headers.end()) {
      age = parseSeconds(trimWhitespace(header->second)).value_or(0);
    }
    if (auto maxAge = directives.find("max-age"); maxAge != directives.end()) {
      if (auto seconds = parseSeconds(maxAge->second)) {
        freshUntil = now + std::chrono::seconds(std::max<int64_t>(*seconds - age, 0));
      } else {
        freshUntil = now;  // a malformed max-age makes the answer stale
      }
    } else if (response.headers.contains("Expires")) {
      auto expires = parseHttpDate(response.headers, "Expires");
      // An invalid Expires (such as "0") means already expired.
      freshUntil = expires ? now + (*expires - date.value_or(now)) : now;
    } else if (auto lastModified = parseHttpDate(response.headers, "Last-Modified")) {
      const auto since = date.value_or(now) - *lastModified;
      if (since > Duration::zero()) {
        auto heuristic = std::chrono::duration_cast<Duration>(since / 10);
        heuristic = std::min<Duration>(heuristic, kHeuristicFreshnessCap);
        freshUntil = now + heuristic;
      }
    }
  }
  const bool fresh = freshUntil && *freshUntil > now;
  if (!fresh && !hasValidator(response.headers)) return false;
  if (freshUntil && !fresh) freshUntil = now;

  CachedResponse entry{response, body, now, freshUntil};
  entry.response.fromCache = true;
  std::lock_guard lock(impl_->mutex);
  impl_->memoryInsert(request.url, entry);
  if (impl_->diskEnabled()) impl_->diskWrite(request.url, entry);
  return true;
}

void UrlCache::removeResponseForRequest(const HttpRequest& request) {
  std::lock_guard lock(impl_->mutex);
  impl_->memory.erase(request.url);
  if (impl_->diskEnabled()) {
    const std::string fileName = sha256Hex(request.url);
    if (impl_->disk.contains(fileName)) impl_->diskRemove(fileName);
  }
}

void UrlCache::removeAllResponses() {
  std::lock_guard lock(impl_->mutex);
  impl_->memory.clear();
  while (!impl_->disk.empty()) impl_->diskRemove(impl_->disk.oldestKey());
}

}  // namespace orvex
