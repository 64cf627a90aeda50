#include "orvexd/platform/url_cache.h"

#include <curl/curl.h>
#include <fcntl.h>
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

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/property_list.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/sha256_hex.h"

namespace orvex {

namespace {

namespace fs = std::filesystem;

const OrvexLog& cacheLog() { return OrvexLogForCategory(kOrvexLogCaching); }

constexpr std::string_view kTemporaryPrefix = "tmp-";
// Mapped entries' files: the prefix and the digest of the URL.
constexpr std::string_view kMappedPrefix = "img-";
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
  size_t size() const { return index_.size(); }
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
  // A mapped entry: the URL it was stored for (its file is named by the URL's digest), what is
  // kept of the answer, and the mapping of the file.
  struct Mapped {
    std::string url;
    HttpResponse response;
    std::shared_ptr<const MappedFile> body;
  };

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
    mapped.erase(fileName);  // its readers keep the mapping, which outlives the file
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
    const std::string bytes = encodeUrlCacheEntry(key, value);
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
    auto entry = decodeUrlCacheEntry(
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

  // Keeps the file at `path`, mapped as `body`, as the mapped entry of `url`.
  bool mappedStore(const std::string& url, HttpResponse response, const std::string& path,
                   std::shared_ptr<const MappedFile> body) {
    const std::string digest = sha256Hex(url);
    if (digest.empty()) return false;
    const std::string fileName = std::string(kMappedPrefix).append(digest);
    const fs::path target = fs::path(directory) / fileName;
    // A rename keeps the file, so the mapping made of it is now a mapping of the cache's file.
    if (::rename(path.c_str(), target.c_str()) != 0) {
      if (errno != EXDEV) {
        cacheLog().error("cannot move %@ into the cache: %@", path, std::strerror(errno));
        return false;
      }
      body = copyIn(path, target);
      if (!body) return false;
    }
    struct stat info {};
    if (::lstat(target.c_str(), &info) != 0) {
      ::unlink(target.c_str());
      return false;
    }
    mapped.insert(fileName, Mapped{url, std::move(response), std::move(body)}, 0);
    diskTouch(fileName, diskFootprint(info));
    while (mapped.size() > UrlCache::kMaxMappedEntries) diskRemove(mapped.oldestKey());
    diskEvict();
    return true;
  }

  // The file at `path`, on another file system, copied to `target` (by the kernel, not through
  // a buffer of ours) and mapped there; none, and nothing left behind, on failure.
  std::shared_ptr<const MappedFile> copyIn(const std::string& path, const fs::path& target) {
    std::string temporary = (fs::path(directory) / (std::string(kTemporaryPrefix) + "XXXXXX"));
    UniqueFd created(mkostemp(temporary.data(), O_CLOEXEC));
    std::error_code error;
    std::shared_ptr<const MappedFile> body;
    if (!created) {
      error = std::error_code(errno, std::generic_category());
    } else {
      (void)created.close();
      fs::copy_file(path, temporary, fs::copy_options::overwrite_existing, error);
      UniqueFd copy(error ? -1 : ::open(temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
      int mapError = copy ? 0 : errno;
      if (copy) body = mmapFileHandle(copy.get(), &mapError);
      if (!error && !body) error = std::error_code(mapError, std::generic_category());
      if (body && ::rename(temporary.c_str(), target.c_str()) != 0) {
        error = std::error_code(errno, std::generic_category());
        body = nullptr;
      }
      if (!body) ::unlink(temporary.c_str());
    }
    if (!body) cacheLog().error("cannot copy %@ into the cache: %@", path, error.message());
    return body;
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
      // Left over from an interrupted write, or a mapped entry of an earlier run.
      if (name.starts_with(kTemporaryPrefix) || name.starts_with(kMappedPrefix)) {
        fs::remove(it->path(), entryError);
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
  LruIndex<OnDisk> disk;            // by file name, mapped entries' files included
  LruIndex<Mapped> mapped;          // by file name; costs unused (their files count in `disk`)
  bool directoryReady = false;
};

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
    for (const std::string& name : {fileName, std::string(kMappedPrefix).append(fileName)}) {
      if (impl_->disk.contains(name)) impl_->diskRemove(name);
    }
  }
}

void UrlCache::removeAllResponses() {
  std::lock_guard lock(impl_->mutex);
  impl_->memory.clear();
  while (!impl_->disk.empty()) impl_->diskRemove(impl_->disk.oldestKey());
}

bool UrlCache::storeMappedResponse(const HttpRequest& request, const HttpResponse& response,
                                   const std::string& path,
                                   std::shared_ptr<const MappedFile> body) {
  // The same bound on one entry as for the others' disk tier.
  if (request.method != "GET" || !body || body->size() > impl_->diskCapacity / 20) return false;
  // What a reader of an image needs of its answer; the other headers would only take memory.
  HttpResponse kept;
  kept.url = response.url;
  kept.statusCode = response.statusCode;
  if (auto type = response.headers.find("Content-Type"); type != response.headers.end()) {
    kept.headers.emplace(type->first, type->second);
  }
  kept.fromCache = true;
  std::lock_guard lock(impl_->mutex);
  if (!impl_->diskEnabled()) return false;
  return impl_->mappedStore(request.url, std::move(kept), path, std::move(body));
}

std::optional<MappedCachedResponse> UrlCache::mappedResponseForRequest(
    const HttpRequest& request) const {
  if (request.method != "GET") return std::nullopt;
  const std::string fileName = std::string(kMappedPrefix).append(sha256Hex(request.url));
  std::lock_guard lock(impl_->mutex);
  const auto* found = impl_->mapped.use(fileName);
  if (found == nullptr || found->value.url != request.url) return std::nullopt;
  impl_->disk.use(fileName);
  return MappedCachedResponse{found->value.response, found->value.body};
}

}  // namespace orvex
