#include "orvexd/base/plist_binary_writer.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <type_traits>

namespace orvex {
namespace {

constexpr std::uint8_t kMarkerArray = 0xA0;
constexpr std::uint8_t kMarkerDictionary = 0xD0;
constexpr std::uint8_t kMarkerKey = 1;  // keys are strings, shared only with keys
constexpr std::int64_t kMicrosPerSecond = 1'000'000;
constexpr PlistDate::TimePoint kReferenceDate{
    std::chrono::sys_days{std::chrono::year{2001} / 1 / 1}};

// Bytes a reference or an offset up to `value` takes.
unsigned sizeFor(std::uint64_t value) {
  if (value < (std::uint64_t{1} << 8)) return 1;
  if (value < (std::uint64_t{1} << 16)) return 2;
  if (value < (std::uint64_t{1} << 24)) return 3;
  if (value < (std::uint64_t{1} << 32)) return 4;
  return 8;
}

void appendBigEndian(std::uint64_t value, unsigned count, std::vector<std::uint8_t>& out) {
  for (unsigned i = count; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// An integer object: 1, 2, 4 or 8 bytes.
void appendInteger(std::uint64_t value, std::vector<std::uint8_t>& out) {
  unsigned size = sizeFor(value);
  if (size == 3) size = 4;
  out.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(size)));
  appendBigEndian(value, size, out);
}

// A marker with its count, inline below 15, else as an integer after it.
void appendMarker(std::uint8_t marker, std::uint64_t count, std::vector<std::uint8_t>& out) {
  if (count < 15) {
    out.push_back(static_cast<std::uint8_t>(marker | count));
    return;
  }
  out.push_back(static_cast<std::uint8_t>(marker | 0x0F));
  appendInteger(count, out);
}

void appendReal(double value, std::vector<std::uint8_t>& out) {
  // Out of a float's finite range the cast is not exact anyway (and infinities are).
  const bool fitsFloat = !(std::abs(value) > 3.4028234663852886e38) || std::isinf(value);
  if (fitsFloat && static_cast<double>(static_cast<float>(value)) == value) {
    out.push_back(0x22);
    appendBigEndian(std::bit_cast<std::uint32_t>(static_cast<float>(value)), 4, out);
  } else {
    out.push_back(0x23);
    appendBigEndian(std::bit_cast<std::uint64_t>(value), 8, out);
  }
}

}  // namespace

double referenceSeconds(PlistDate date) {
  const std::int64_t micros = (date.time - kReferenceDate).count();
  std::int64_t seconds = micros / kMicrosPerSecond;
  std::int64_t rest = micros % kMicrosPerSecond;
  if (rest < 0) {
    rest += kMicrosPerSecond;
    --seconds;
  }
  return static_cast<double>(seconds) + static_cast<double>(rest) / kMicrosPerSecond;
}

void BinaryPlistWriter::appendString(std::string_view text) {
  bool ascii = true;
  for (const char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (ascii) {
    appendMarker(0x50, text.size(), bytes_);
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return;
  }
  // Valid UTF-8 (the caller's promise) to UTF-16 code units.
  utf16_.clear();
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    char32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length && i + k < text.size(); ++k) {
      code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    i += length;
    if (code >= 0x10000) {
      code -= 0x10000;
      utf16_.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
      utf16_.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
    } else {
      utf16_.push_back(static_cast<char16_t>(code));
    }
  }
  appendMarker(0x60, utf16_.size(), bytes_);
  for (const char16_t unit : utf16_) appendBigEndian(unit, 2, bytes_);
}

void BinaryPlistWriter::begin() {
  nodes_.clear();
  open_.clear();
  bytes_.clear();
  keys_.clear();
  pendingKey_.reset();
}

void BinaryPlistWriter::key(std::string_view name) {
  Node keyed;
  keyed.keyOffset = static_cast<std::uint32_t>(keys_.size());
  keyed.keyLength = static_cast<std::uint32_t>(name.size());
  keys_.insert(keys_.end(), name.begin(), name.end());
  keyed.keyObjectOffset = static_cast<std::uint32_t>(bytes_.size());
  appendString(name);
  keyed.keyObjectLength = static_cast<std::uint32_t>(bytes_.size() - keyed.keyObjectOffset);
  pendingKey_ = keyed;
}

void BinaryPlistWriter::addNode(Kind kind, std::size_t bytesStart) {
  Node node = pendingKey_.value_or(Node{});
  pendingKey_.reset();
  node.kind = kind;
  node.bytesOffset = static_cast<std::uint32_t>(bytesStart);
  node.bytesLength = static_cast<std::uint32_t>(bytes_.size() - bytesStart);
  const auto index = static_cast<std::uint32_t>(nodes_.size());
  nodes_.push_back(node);
  if (!open_.empty()) {
    Node& parent = nodes_[open_.back()];
    if (parent.count++ == 0) {
      parent.firstChild = index;
    } else {
      nodes_[parent.lastChild].nextSibling = index;
    }
    parent.lastChild = index;
  }
  if (kind == Kind::kArray || kind == Kind::kDictionary) open_.push_back(index);
}

void BinaryPlistWriter::boolean(bool value) {
  const std::size_t start = bytes_.size();
  bytes_.push_back(value ? 0x09 : 0x08);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::integer(std::int64_t value) {
  const std::size_t start = bytes_.size();
  appendInteger(static_cast<std::uint64_t>(value), bytes_);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::unsignedInteger(std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(INT64_MAX)) {
    integer(static_cast<std::int64_t>(value));
    return;
  }
  const std::size_t start = bytes_.size();
  bytes_.push_back(0x14);
  appendBigEndian(0, 8, bytes_);
  appendBigEndian(value, 8, bytes_);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::real(double value) {
  const std::size_t start = bytes_.size();
  appendReal(value, bytes_);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::string(std::string_view text) {
  const std::size_t start = bytes_.size();
  appendString(text);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::date(PlistDate value) {
  const std::size_t start = bytes_.size();
  bytes_.push_back(0x33);
  appendBigEndian(std::bit_cast<std::uint64_t>(referenceSeconds(value)), 8, bytes_);
  addNode(Kind::kLeaf, start);
}

void BinaryPlistWriter::data(std::span<const std::uint8_t> value) {
  const std::size_t start = bytes_.size();
  appendMarker(0x40, value.size(), bytes_);
  bytes_.insert(bytes_.end(), value.begin(), value.end());
  addNode(Kind::kData, start);
}

void BinaryPlistWriter::beginArray() { addNode(Kind::kArray, bytes_.size()); }
void BinaryPlistWriter::beginDictionary() { addNode(Kind::kDictionary, bytes_.size()); }
void BinaryPlistWriter::end() {
  if (!open_.empty()) open_.pop_back();
}

void BinaryPlistWriter::value(const PlistValue& value) {
  value.visit([&](const auto& stored) {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, bool>) {
      boolean(stored);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      integer(stored);
    } else if constexpr (std::is_same_v<T, std::uint64_t>) {
      unsignedInteger(stored);
    } else if constexpr (std::is_same_v<T, double>) {
      real(stored);
    } else if constexpr (std::is_same_v<T, std::string>) {
      string(stored);
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      date(stored);
    } else if constexpr (std::is_same_v<T, PlistData>) {
      data(stored);
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      beginArray();
      for (const PlistValue& element : stored) this->value(element);
      end();
    } else {
      beginDictionary();
      for (const auto& entry : stored) {
        key(entry.first);
        this->value(entry.second);
      }
      end();
    }
  });
}

void BinaryPlistWriter::write(const PlistValue& value, std::vector<std::uint8_t>& out) {
  begin();
  this->value(value);
  finish(out);
}

void BinaryPlistWriter::growTable() {
  std::vector<std::uint32_t> old;
  old.swap(table_);
  table_.assign(old.empty() ? 64 : old.size() * 2, 0);
  const std::size_t mask = table_.size() - 1;
  for (const std::uint32_t entry : old) {
    if (entry == 0) continue;
    const Object& object = objects_[entry - 1];
    const std::string_view bytes(reinterpret_cast<const char*>(&bytes_[object.bytesOffset]),
                                 object.bytesLength);
    std::size_t slot = (std::hash<std::string_view>{}(bytes) + object.marker) & mask;
    while (table_[slot] != 0) slot = (slot + 1) & mask;
    table_[slot] = entry;
  }
}

std::uint32_t BinaryPlistWriter::shareLeaf(std::uint32_t offset, std::uint32_t length, bool isKey) {
  const std::uint8_t kind = isKey ? kMarkerKey : 0;
  const std::string_view bytes(reinterpret_cast<const char*>(&bytes_[offset]), length);
  if ((objects_.size() + 1) * 2 > table_.size()) growTable();
  const std::size_t mask = table_.size() - 1;
  std::size_t slot = (std::hash<std::string_view>{}(bytes) + kind) & mask;
  for (; table_[slot] != 0; slot = (slot + 1) & mask) {
    const Object& other = objects_[table_[slot] - 1];
    if (other.marker == kind && other.bytesLength == length &&
        std::memcmp(&bytes_[other.bytesOffset], bytes.data(), length) == 0) {
      return table_[slot] - 1;
    }
  }
  const auto index = static_cast<std::uint32_t>(objects_.size());
  objects_.push_back({offset, length, 0, 0, kind});
  table_[slot] = index + 1;
  return index;
}

std::uint32_t BinaryPlistWriter::number(std::uint32_t index) {
  const Node& node = nodes_[index];
  if (node.kind == Kind::kLeaf) return shareLeaf(node.bytesOffset, node.bytesLength, false);
  const auto object = static_cast<std::uint32_t>(objects_.size());
  if (node.kind == Kind::kData) {
    objects_.push_back({node.bytesOffset, node.bytesLength, 0, 0, 0});
    return object;
  }
  const auto firstRef = static_cast<std::uint32_t>(refs_.size());
  if (node.kind == Kind::kArray) {
    objects_.push_back({0, 0, firstRef, node.count, kMarkerArray});
    refs_.resize(refs_.size() + node.count);
    std::uint32_t slot = firstRef;
    for (std::uint32_t child = node.firstChild, i = 0; i < node.count;
         child = nodes_[child].nextSibling, ++i) {
      const std::uint32_t ref = number(child);
      refs_[slot++] = ref;
    }
    return object;
  }
  // The entries in key order; of equal keys only the last given is kept.
  const std::size_t first = order_.size();
  for (std::uint32_t child = node.firstChild, i = 0; i < node.count;
       child = nodes_[child].nextSibling, ++i) {
    order_.push_back(child);
  }
  const auto keyOf = [this](std::uint32_t child) {
    return std::string_view(keys_.data() + nodes_[child].keyOffset, nodes_[child].keyLength);
  };
  const auto byKey = [&keyOf](std::uint32_t a, std::uint32_t b) { return keyOf(a) < keyOf(b); };
  const auto entries = order_.begin() + static_cast<std::ptrdiff_t>(first);
  if (!std::is_sorted(entries, order_.end(), byKey)) std::stable_sort(entries, order_.end(), byKey);
  std::size_t kept = first;
  for (std::size_t i = first; i < order_.size(); ++i) {
    if (i + 1 < order_.size() && keyOf(order_[i]) == keyOf(order_[i + 1])) continue;
    order_[kept++] = order_[i];
  }
  order_.resize(kept);
  const auto count = static_cast<std::uint32_t>(kept - first);
  objects_.push_back({0, 0, firstRef, count, kMarkerDictionary});
  refs_.resize(refs_.size() + 2 * std::size_t{count});
  for (std::uint32_t i = 0; i < count; ++i) {
    const Node& entry = nodes_[order_[first + i]];
    refs_[firstRef + i] = shareLeaf(entry.keyObjectOffset, entry.keyObjectLength, true);
    const std::uint32_t ref = number(order_[first + i]);
    refs_[firstRef + count + i] = ref;
  }
  order_.resize(first);
  return object;
}

void BinaryPlistWriter::finish(std::vector<std::uint8_t>& out) {
  objects_.clear();
  refs_.clear();
  order_.clear();
  std::fill(table_.begin(), table_.end(), 0);
  if (nodes_.empty()) return;
  (void)number(0);

  const std::size_t documentStart = out.size();
  const unsigned refSize = sizeFor(objects_.size());
  offsets_.clear();
  static constexpr std::string_view kMagic = "bplist00";
  out.insert(out.end(), kMagic.begin(), kMagic.end());
  for (const Object& object : objects_) {
    offsets_.push_back(out.size() - documentStart);
    if (object.bytesLength > 0) {
      out.insert(out.end(), bytes_.begin() + object.bytesOffset,
                 bytes_.begin() + object.bytesOffset + object.bytesLength);
      continue;
    }
    appendMarker(object.marker, object.count, out);
    const std::size_t refCount =
        object.marker == kMarkerDictionary ? 2 * std::size_t{object.count} : object.count;
    for (std::size_t i = 0; i < refCount; ++i) {
      appendBigEndian(refs_[object.firstRef + i], refSize, out);
    }
  }
  const std::uint64_t tableOffset = out.size() - documentStart;
  const unsigned offsetSize = sizeFor(tableOffset);
  for (const std::uint64_t offset : offsets_) appendBigEndian(offset, offsetSize, out);
  out.insert(out.end(), 6, 0);
  out.push_back(static_cast<std::uint8_t>(offsetSize));
  out.push_back(static_cast<std::uint8_t>(refSize));
  appendBigEndian(objects_.size(), 8, out);
  appendBigEndian(0, 8, out);
  appendBigEndian(tableOffset, 8, out);
  releaseLargeBuffers();
}

void BinaryPlistWriter::releaseLargeBuffers() {
  // Buffers stay for the next document, unless a rare large one has grown them: then the
  // memory goes back, and the table is not cleared entry by entry for each small document.
  constexpr std::size_t kKeepBytes = 256 * 1024;
  const auto release = [](auto& buffer) {
    if (buffer.capacity() * sizeof(buffer[0]) > kKeepBytes)
      std::decay_t<decltype(buffer)>().swap(buffer);
  };
  release(nodes_);
  release(bytes_);
  release(keys_);
  release(objects_);
  release(refs_);
  release(table_);
  release(offsets_);
  release(order_);
  release(open_);
}

BinaryPlistWriter& binaryPlistWriterForThread() {
  thread_local BinaryPlistWriter writer;
  return writer;
}

}  // namespace orvex
