#include "orvexd/platform/url_cache_codec.h"

#include <chrono>

namespace orvex {

namespace {

// Disk entry layout (all integers little-endian):
//   magic "ORVXURLC", u32 version,
//   u32 length + key URL, u32 length + response URL, i64 status,
//   u32 header count, then per header u32 length + name, u32 length + value,
//   i64 storedAt and u8 hasFreshUntil + i64 freshUntil (microseconds since 1970),
//   u64 length + body, and nothing after it.
constexpr std::string_view kMagic = "ORVXURLC";
constexpr uint32_t kFormatVersion = 1;
constexpr uint32_t kMaxHeaderCount = 4096;

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

}  // namespace

std::string encodeUrlCacheEntry(const std::string& key, const CachedResponse& entry) {
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
std::optional<CachedResponse> decodeUrlCacheEntry(std::string_view data, const std::string& key,
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

}  // namespace orvex
