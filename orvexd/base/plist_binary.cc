#include "orvexd/base/plist_binary.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <utility>

#include "orvexd/base/name_table.h"
#include "orvexd/base/plist_binary_writer.h"
#include "orvexd/base/plist_tree_builder.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

using std::chrono::microseconds;
using std::chrono::sys_days;

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
// 2001-01-01T00:00:00Z, the origin of the seconds in binary documents.
constexpr PlistDate::TimePoint kReferenceDate{sys_days{std::chrono::year{2001} / 1 / 1}};

using BinaryBuffer = std::unique_ptr<char, CFree<&plist_to_bin_free>>;

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = (value << 8) | bytes[i];
  return value;
}

void appendBigEndian(std::uint64_t value, std::size_t count, std::vector<std::uint8_t>& out) {
  for (std::size_t i = count; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

std::optional<PlistDate> dateFromReferenceSeconds(double seconds) {
  // The supported range spans less than 2^39 seconds either side of 2001.
  if (!std::isfinite(seconds) || std::fabs(seconds) > 0x1p40) return std::nullopt;
  const double whole = std::floor(seconds);
  const auto micros = static_cast<std::int64_t>(whole) * kMicrosPerSecond +
                      std::llround((seconds - whole) * kMicrosPerSecond);
  PlistDate date(kReferenceDate + microseconds{micros});
  // Near the ends of the range the double cannot hold every microsecond and may round just
  // past them.
  constexpr auto kRounding = std::chrono::milliseconds{1};
  if (date.time > PlistDate::kLast && date.time - PlistDate::kLast < kRounding)
    date.time = PlistDate::kLast;
  if (date.time < PlistDate::kFirst && PlistDate::kFirst - date.time < kRounding)
    date.time = PlistDate::kFirst;
  if (!date.isSupported()) return std::nullopt;
  return date;
}

// ---- Binary documents --------------------------------------------------------------------
//
// libplist parses binary documents recursively and expands every reference into a copy of
// the object it names, so the structure is checked here first: offsets and lengths inside the
// document, nesting no deeper than kPlistMaxDepth, and no container reachable twice (which
// also rules out cycles). Each container is then expanded once, so libplist builds at most one
// node per reference, and every reference takes at least a byte of the document.
//
// The payload of a leaf is copied once per reference, though, and that is not bounded by the
// size of the document: a 20 KB data object named 20,000 times from a 40 KB document would
// become 400 MB. Writers share equal keys and equal values, so a short leaf named from
// thousands of places is normal (thousands of dictionaries with the same few keys); a copy of
// up to kFreeLeafCopy bytes is no larger than the node libplist builds for the reference anyway
// (about 96 bytes), and is not counted. What the references copy beyond that is added up, and
// the document is refused once the total passes kCopyBudgetFactor times its size plus
// kCopyBudgetSlack. A long leaf named once is always within that; so, with room to spare, are a
// few long leaves shared by a handful of places.

constexpr std::size_t kBinaryHeaderSize = 8;
constexpr std::size_t kBinaryTrailerSize = 32;
constexpr std::uint64_t kFreeLeafCopy = 64;
constexpr std::uint64_t kCopyBudgetFactor = 8;
constexpr std::uint64_t kCopyBudgetSlack = std::uint64_t{1} << 20;

struct BinaryTrailer {
  unsigned offsetSize = 0;
  unsigned refSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t topObject = 0;
  std::uint64_t tableOffset = 0;
};

enum BinaryType : std::uint8_t {
  kBinarySimple = 0x0,
  kBinaryInteger = 0x1,
  kBinaryReal = 0x2,
  kBinaryDate = 0x3,
  kBinaryData = 0x4,
  kBinaryAsciiString = 0x5,
  kBinaryUtf16String = 0x6,
  kBinaryUid = 0x8,
  kBinaryArray = 0xA,
  kBinarySet = 0xC,
  kBinaryDictionary = 0xD,
};

// The objects of the binary format that hold no property list value, and why.
constexpr Named<std::uint8_t> kObjectsWithoutValue[] = {
    {kBinaryUid, "the binary property list holds a UID, which is not a property list value"},
    {kBinarySet, "the binary property list holds a set, which is not a property list value"}};

struct BinaryObject {
  std::uint8_t type = 0;
  std::uint64_t count = 0;       // elements of containers, length of strings and data
  std::uint64_t bodyOffset = 0;  // where the payload (or the references) start
};

std::optional<BinaryTrailer> readBinaryTrailer(std::span<const std::uint8_t> bytes,
                                               std::string& why) {
  if (bytes.size() < kBinaryHeaderSize + 1 + kBinaryTrailerSize) {
    why = "the binary property list is too short";
    return std::nullopt;
  }
  if (std::memcmp(bytes.data(), "bplist00", kBinaryHeaderSize) != 0) {
    why = "the binary property list has an unsupported version";
    return std::nullopt;
  }
  const std::uint8_t* raw = bytes.data() + bytes.size() - kBinaryTrailerSize;
  BinaryTrailer trailer;
  trailer.offsetSize = raw[6];
  trailer.refSize = raw[7];
  trailer.objectCount = readBigEndian(raw + 8, 8);
  trailer.topObject = readBigEndian(raw + 16, 8);
  trailer.tableOffset = readBigEndian(raw + 24, 8);
  const std::uint64_t tableEnd = bytes.size() - kBinaryTrailerSize;
  if (trailer.offsetSize < 1 || trailer.offsetSize > 8 || trailer.refSize < 1 ||
      trailer.refSize > 8) {
    why = "the binary property list has invalid offset or reference sizes";
  } else if (trailer.tableOffset <= kBinaryHeaderSize || trailer.tableOffset >= tableEnd) {
    why = "the offset table of the binary property list lies outside the document";
  } else if (trailer.objectCount == 0 ||
             trailer.objectCount > (tableEnd - trailer.tableOffset) / trailer.offsetSize) {
    why = "the object count of the binary property list does not fit its offset table";
  } else if (trailer.topObject >= trailer.objectCount) {
    why = "the top object of the binary property list does not exist";
  } else {
    return trailer;
  }
  return std::nullopt;
}

std::optional<BinaryObject> readBinaryObject(std::span<const std::uint8_t> bytes,
                                             const BinaryTrailer& trailer, std::uint64_t index,
                                             std::string& why) {
  const std::uint64_t offset = readBigEndian(
      bytes.data() + trailer.tableOffset + index * trailer.offsetSize, trailer.offsetSize);
  const std::uint64_t limit = trailer.tableOffset;
  if (offset < kBinaryHeaderSize || offset >= limit) {
    why = "an object of the binary property list lies outside the document";
    return std::nullopt;
  }
  const std::uint8_t marker = bytes[offset];
  BinaryObject object;
  object.type = marker >> 4;
  const unsigned info = marker & 0x0F;
  std::uint64_t position = offset + 1;
  std::uint64_t unit = 0;  // bytes per counted element
  std::uint64_t size = 0;  // fixed payload size
  switch (object.type) {
    case kBinarySimple:
      if (info != 0x8 && info != 0x9) {
        why = "the binary property list holds a null or fill object";
        return std::nullopt;
      }
      break;
    case kBinaryInteger:
      if (info > 4) {
        why = "the binary property list holds an integer wider than 128 bits";
        return std::nullopt;
      }
      size = std::uint64_t{1} << info;
      break;
    case kBinaryReal:
      if (info != 2 && info != 3) {
        why = "the binary property list holds a real of unsupported width";
        return std::nullopt;
      }
      size = std::uint64_t{1} << info;
      break;
    case kBinaryDate:
      if (info != 3) {
        why = "the binary property list holds a date of unsupported width";
        return std::nullopt;
      }
      size = 8;
      break;
    case kBinaryData:
    case kBinaryAsciiString:
    case kBinaryUtf16String:
    case kBinaryArray:
    case kBinaryDictionary: {
      object.count = info;
      if (info == 0x0F) {
        // The count follows as an integer object of 1, 2, 4 or 8 bytes.
        if (position >= limit || (bytes[position] >> 4) != kBinaryInteger ||
            (bytes[position] & 0x0F) > 3) {
          why = "the binary property list has a malformed length";
          return std::nullopt;
        }
        const std::uint64_t width = std::uint64_t{1} << (bytes[position] & 0x0F);
        if (width > limit - position - 1) {
          why = "the binary property list is truncated";
          return std::nullopt;
        }
        object.count = readBigEndian(bytes.data() + position + 1, width);
        position += 1 + width;
      }
      unit = object.type == kBinaryUtf16String  ? 2
             : object.type == kBinaryArray      ? trailer.refSize
             : object.type == kBinaryDictionary ? 2 * trailer.refSize
                                                : 1;
      break;
    }
    default:
      why = nameOf(kObjectsWithoutValue, object.type)
                .value_or("the binary property list holds an object of unknown type");
      return std::nullopt;
  }
  const std::uint64_t available = limit - position;
  if (unit != 0 ? object.count > available / unit : size > available) {
    why = "the binary property list is truncated";
    return std::nullopt;
  }
  if (object.type == kBinaryInteger && size == 16 &&
      readBigEndian(bytes.data() + position, 8) != 0) {
    why = "the binary property list holds an integer outside the 64-bit range";
    return std::nullopt;
  }
  // libplist stops the process (an assertion) on a key with a NUL character, and neither
  // format can carry one in a string faithfully.
  const std::uint8_t* body = bytes.data() + position;
  if (object.type == kBinaryAsciiString && std::memchr(body, 0, object.count) != nullptr) {
    why = "the binary property list holds a string with a NUL character";
    return std::nullopt;
  }
  if (object.type == kBinaryUtf16String) {
    for (std::uint64_t i = 0; i < object.count; ++i) {
      if (body[2 * i] == 0 && body[2 * i + 1] == 0) {
        why = "the binary property list holds a string with a NUL character";
        return std::nullopt;
      }
    }
  }
  object.bodyOffset = position;
  return object;
}

// The bytes libplist 2.2 allocates for the payload of one copy of a leaf: data as it is,
// strings with a terminator, and UTF-16 strings converted to UTF-8 in a buffer of three bytes
// per unit. Other leaves have a payload of at most 16 bytes.
std::uint64_t leafCopySize(const BinaryObject& object) {
  switch (object.type) {
    case kBinaryData:
      return object.count;
    case kBinaryAsciiString:
      return object.count + 1;
    case kBinaryUtf16String:
      return 3 * object.count + 1;
    default:
      return 0;
  }
}

bool checkBinaryStructure(std::span<const std::uint8_t> bytes, const BinaryTrailer& trailer,
                          std::string& why) {
  // The document is at most 4 GiB and a leaf copy at most three times that, so neither the
  // budget nor the total (checked after every addition) can overflow.
  const std::uint64_t copyBudget = kCopyBudgetFactor * bytes.size() + kCopyBudgetSlack;
  std::uint64_t copied = 0;
  const auto chargeCopy = [&](const BinaryObject& leaf) {
    const std::uint64_t size = leafCopySize(leaf);
    if (size > kFreeLeafCopy) copied += size - kFreeLeafCopy;
    if (copied <= copyBudget) return true;
    why =
        "the binary property list names long strings or data from too many places (reading "
        "it would copy more than " +
        std::to_string(copyBudget) + " bytes)";
    return false;
  };
  std::vector<bool> expanded(trailer.objectCount, false);
  struct Pending {
    std::uint64_t index;
    int depth;  // containers around this object
  };
  std::vector<Pending> pending{{trailer.topObject, 0}};
  while (!pending.empty()) {
    const Pending current = pending.back();
    pending.pop_back();
    const auto object = readBinaryObject(bytes, trailer, current.index, why);
    if (!object) return false;
    if (object->type != kBinaryArray && object->type != kBinaryDictionary) {
      if (!chargeCopy(*object)) return false;
      continue;
    }
    if (expanded[current.index]) {
      why = "the binary property list reaches one container from two places";
      return false;
    }
    expanded[current.index] = true;
    if (current.depth + 1 > kPlistMaxDepth) {
      why = "the binary property list is nested too deeply";
      return false;
    }
    const std::uint64_t keyCount = object->type == kBinaryDictionary ? object->count : 0;
    const std::uint64_t references = object->count + keyCount;
    for (std::uint64_t i = 0; i < references; ++i) {
      const std::uint64_t child =
          readBigEndian(bytes.data() + object->bodyOffset + i * trailer.refSize, trailer.refSize);
      if (child >= trailer.objectCount) {
        why = "the binary property list refers to an object that does not exist";
        return false;
      }
      if (i < keyCount) {
        const auto key = readBinaryObject(bytes, trailer, child, why);
        if (!key) return false;
        if (key->type != kBinaryAsciiString && key->type != kBinaryUtf16String) {
          why = "the binary property list has a dictionary key that is not a string";
          return false;
        }
        if (!chargeCopy(*key)) return false;
      } else {
        pending.push_back({child, current.depth + 1});
      }
    }
  }
  return true;
}

// A libplist node read from a document holding `object` alone. This is how nodes get what the
// node constructors of libplist 2.2 cannot give them: dates as an exact double of seconds
// since 2001, and integers in the unsigned 16-byte form.
PlistHandle nodeFromBinaryObject(std::span<const std::uint8_t> object) {
  std::vector<std::uint8_t> document{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  document.insert(document.end(), object.begin(), object.end());
  const std::size_t tableOffset = document.size();
  document.push_back(static_cast<std::uint8_t>(kBinaryHeaderSize));
  document.insert(document.end(), 6, 0);
  document.push_back(1);  // offset size
  document.push_back(1);  // reference size
  appendBigEndian(1, 8, document);
  appendBigEndian(0, 8, document);
  appendBigEndian(tableOffset, 8, document);
  plist_t node = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(document.data()),
                 static_cast<std::uint32_t>(document.size()), &node);
  return PlistHandle(node);
}

// The exact seconds since 2001 of a date node. plist_get_date_val() truncates them to whole
// seconds plus unsigned microseconds, which loses the sign of dates in the last second of 2000,
// so the node is written alone and its double read back.
std::optional<double> dateNodeSeconds(plist_t node) {
  char* raw = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(node, &raw, &length);
  const BinaryBuffer buffer(raw);
  if (buffer == nullptr) return std::nullopt;
  const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(raw), length);
  std::string why;
  const auto trailer = readBinaryTrailer(bytes, why);
  if (!trailer) return std::nullopt;
  const auto object = readBinaryObject(bytes, *trailer, trailer->topObject, why);
  if (!object || object->type != kBinaryDate) return std::nullopt;
  return std::bit_cast<double>(readBigEndian(bytes.data() + object->bodyOffset, 8));
}

// ---- libplist trees ------------------------------------------------------------------------

// Builds the tree of a value that passed checkWritable().
PlistHandle buildNode(const PlistValue& value) {
  return value.visit([](const auto& stored) -> PlistHandle {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, bool>) {
      return PlistHandle(plist_new_bool(stored ? 1 : 0));
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      return PlistHandle(plist_new_uint(static_cast<std::uint64_t>(stored)));
    } else if constexpr (std::is_same_v<T, std::uint64_t>) {
      std::vector<std::uint8_t> object{0x14};
      appendBigEndian(0, 8, object);
      appendBigEndian(stored, 8, object);
      return nodeFromBinaryObject(object);
    } else if constexpr (std::is_same_v<T, double>) {
      return PlistHandle(plist_new_real(stored));
    } else if constexpr (std::is_same_v<T, std::string>) {
      return PlistHandle(plist_new_string(stored.c_str()));
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      std::vector<std::uint8_t> object{0x33};
      appendBigEndian(std::bit_cast<std::uint64_t>(referenceSeconds(stored)), 8, object);
      return nodeFromBinaryObject(object);
    } else if constexpr (std::is_same_v<T, PlistData>) {
      static const char kEmpty = 0;
      return PlistHandle(plist_new_data(
          stored.empty() ? &kEmpty : reinterpret_cast<const char*>(stored.data()), stored.size()));
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      PlistHandle array(plist_new_array());
      if (array == nullptr) return nullptr;
      for (const PlistValue& element : stored) {
        PlistHandle child = buildNode(element);
        if (child == nullptr) return nullptr;
        plist_array_append_item(array.get(), child.release());
      }
      return array;
    } else {
      PlistHandle dictionary(plist_new_dict());
      if (dictionary == nullptr) return nullptr;
      for (const auto& [key, element] : stored) {
        PlistHandle child = buildNode(element);
        if (child == nullptr) return nullptr;
        plist_dict_set_item(dictionary.get(), key.c_str(), child.release());
      }
      return dictionary;
    }
  });
}

// The value of a node that is no container.
std::optional<PlistValue> readLeaf(plist_t node, std::string& why) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return PlistValue(value != 0);
    }
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      // Nodes made by plist_new_uint() hold the 8-byte signed form; a node that differs from
      // one holding the same bits has the unsigned 16-byte form.
      const PlistHandle probe(plist_new_uint(value));
      if (probe == nullptr) {
        why = "out of memory";
        return std::nullopt;
      }
      if (plist_compare_node_value(node, probe.get())) {
        return PlistValue(static_cast<std::int64_t>(value));
      }
      return PlistValue(value);
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return PlistValue(value);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      if (text == nullptr) {
        why = "a string node has no text";
        return std::nullopt;
      }
      std::string value(text, length);
      if (!isValidUtf8(value) || value.find('\0') != std::string::npos) {
        why = "a string is not valid UTF-8 or holds a NUL character";
        return std::nullopt;
      }
      return PlistValue(std::move(value));
    }
    case PLIST_DATE: {
      const auto seconds = dateNodeSeconds(node);
      if (!seconds) {
        why = "a date node could not be read";
        return std::nullopt;
      }
      auto date = dateFromReferenceSeconds(*seconds);
      if (!date) {
        why = "a date lies outside the years 1 to 9999";
        return std::nullopt;
      }
      return PlistValue(*date);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      if (bytes == nullptr && length != 0) {
        why = "a data node has no bytes";
        return std::nullopt;
      }
      const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
      return PlistValue(PlistData(begin, begin + length));
    }
    case PLIST_KEY:
      why = "a dictionary key stands where a value belongs";
      return std::nullopt;
    case PLIST_UID:
      why = "a UID is not a property list value";
      return std::nullopt;
    default:
      why = "a node has no type";
      return std::nullopt;
  }
}

// Reads a tree into PlistValue, refusing what readLeaf() refuses and a key twice in a
// dictionary.
struct ValueBuilder {
  static PlistValue container(plist_type type, std::uint32_t size) {
    if (type == PLIST_DICT) return PlistDictionary{};
    PlistArray array;
    array.reserve(size);
    return array;
  }
  static std::optional<PlistValue> leaf(plist_t node, std::string& why) {
    return readLeaf(node, why);
  }
  static bool add(PlistValue& container, std::string key, PlistValue child, std::string& why) {
    if (PlistArray* array = container.asArray()) {
      array->push_back(std::move(child));
    } else if (!container.asDictionary()->emplace(key, std::move(child)).second) {
      why.assign("a dictionary holds the key \"").append(key).append("\" twice");
      return false;
    }
    return true;
  }
};

}  // namespace

std::optional<PlistValue> valueFromPlistTree(plist_t root, std::string& why) {
  ValueBuilder builder;
  return buildFromPlistTree<PlistValue>(root, builder, why);
}

PlistHandle plistTreeFromValue(const PlistValue& value) { return buildNode(value); }

PlistHandle readBinaryPlistTree(std::span<const std::uint8_t> bytes, std::string& why) {
  const auto trailer = readBinaryTrailer(bytes, why);
  if (!trailer || !checkBinaryStructure(bytes, *trailer, why)) return nullptr;
  plist_t raw = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &raw);
  PlistHandle root(raw);
  if (root == nullptr) why = "libplist could not read the binary property list";
  return root;
}

std::optional<PlistValue> readBinaryPlist(std::span<const std::uint8_t> bytes, std::string& why) {
  const PlistHandle root = readBinaryPlistTree(bytes, why);
  if (root == nullptr) return std::nullopt;
  return valueFromPlistTree(root.get(), why);
}

std::vector<std::uint8_t> writeBinaryPlist(const PlistValue& value, std::string& /*why*/) {
  std::vector<std::uint8_t> document;
  binaryPlistWriterForThread().write(value, document);
  return document;
}

}  // namespace orvex
