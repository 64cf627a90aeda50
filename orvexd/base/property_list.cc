#include "orvexd/base/property_list.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

using std::chrono::days;
using std::chrono::microseconds;
using std::chrono::sys_days;

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
// 2001-01-01T00:00:00Z, the origin of the seconds in binary documents.
constexpr PlistDate::TimePoint kReferenceDate{sys_days{std::chrono::year{2001} / 1 / 1}};
constexpr PlistDate::TimePoint kFirstDate{sys_days{std::chrono::year{1} / 1 / 1}};
constexpr PlistDate::TimePoint kLastDate{sys_days{std::chrono::year{10000} / 1 / 1} -
                                         microseconds{1}};

void freeMemory(void* pointer) { std::free(pointer); }
using MallocPointer = std::unique_ptr<char, CFree<&freeMemory>>;
using PlistIterator = std::unique_ptr<void, CFree<&freeMemory>>;
using BinaryBuffer = std::unique_ptr<char, CFree<&plist_to_bin_free>>;

// ---- Small codecs ------------------------------------------------------------------------

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimXmlSpace(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

// The shortest text that reads back as the same double.
std::string formatReal(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = (value << 8) | bytes[i];
  return value;
}

void appendBigEndian(std::uint64_t value, std::size_t count, std::vector<std::uint8_t>& out) {
  for (std::size_t i = count; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// Seconds since 2001 as binary documents store them.
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
  if (date.time > kLastDate && date.time - kLastDate < kRounding) date.time = kLastDate;
  if (date.time < kFirstDate && kFirstDate - date.time < kRounding) date.time = kFirstDate;
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
    case kBinaryUid:
      why = "the binary property list holds a UID, which is not a property list value";
      return std::nullopt;
    case kBinarySet:
      why = "the binary property list holds a set, which is not a property list value";
      return std::nullopt;
    default:
      why = "the binary property list holds an object of unknown type";
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

// ---- Checks before writing -----------------------------------------------------------------

bool checkWritableString(std::string_view text, std::string_view what, std::string& why) {
  if (text.find('\0') != std::string_view::npos) {
    why = std::string(what) + " holds a NUL character";
    return false;
  }
  if (!isValidUtf8(text)) {
    why = std::string(what) + " is not valid UTF-8";
    return false;
  }
  return true;
}

bool checkWritable(const PlistValue& value, int depth, std::string& why) {
  return value.visit([&](const auto& stored) -> bool {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, std::string>) {
      return checkWritableString(stored, "a string", why);
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      if (stored.isSupported()) return true;
      why = "a date lies outside the years 1 to 9999";
      return false;
    } else if constexpr (std::is_same_v<T, PlistArray> || std::is_same_v<T, PlistDictionary>) {
      if (depth + 1 > kPlistMaxDepth) {
        why = "the containers are nested too deeply";
        return false;
      }
      for (const auto& element : stored) {
        if constexpr (std::is_same_v<T, PlistArray>) {
          if (!checkWritable(element, depth + 1, why)) return false;
        } else {
          if (!checkWritableString(element.first, "a dictionary key", why) ||
              !checkWritable(element.second, depth + 1, why)) {
            return false;
          }
        }
      }
      return true;
    } else {
      return true;
    }
  });
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

std::optional<PlistValue> readNode(plist_t node, int depth, std::string& why) {
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
    case PLIST_ARRAY: {
      if (depth + 1 > kPlistMaxDepth) {
        why = "the containers are nested too deeply";
        return std::nullopt;
      }
      PlistArray array;
      const std::uint32_t size = plist_array_get_size(node);
      array.reserve(size);
      for (std::uint32_t i = 0; i < size; ++i) {
        plist_t item = plist_array_get_item(node, i);
        if (item == nullptr) {
          why = "an array element is missing";
          return std::nullopt;
        }
        auto element = readNode(item, depth + 1, why);
        if (!element) return std::nullopt;
        array.push_back(std::move(*element));
      }
      return PlistValue(std::move(array));
    }
    case PLIST_DICT: {
      if (depth + 1 > kPlistMaxDepth) {
        why = "the containers are nested too deeply";
        return std::nullopt;
      }
      PlistDictionary dictionary;
      plist_dict_iter rawIterator = nullptr;
      plist_dict_new_iter(node, &rawIterator);
      const PlistIterator iterator(rawIterator);
      if (iterator == nullptr) {
        why = "out of memory";
        return std::nullopt;
      }
      while (true) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator.get(), &rawKey, &item);
        const MallocPointer key(rawKey);
        if (item == nullptr) break;
        if (key == nullptr) {
          why = "a dictionary entry has no key";
          return std::nullopt;
        }
        std::string keyText(key.get());
        if (!isValidUtf8(keyText)) {
          why = "a dictionary key is not valid UTF-8";
          return std::nullopt;
        }
        auto element = readNode(item, depth + 1, why);
        if (!element) return std::nullopt;
        if (!dictionary.emplace(std::move(keyText), std::move(*element)).second) {
          why = "a dictionary holds the key \"" + std::string(key.get()) + "\" twice";
          return std::nullopt;
        }
      }
      return PlistValue(std::move(dictionary));
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

std::optional<PlistValue> parseBinary(std::span<const std::uint8_t> bytes, std::string& why) {
  const auto trailer = readBinaryTrailer(bytes, why);
  if (!trailer || !checkBinaryStructure(bytes, *trailer, why)) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::uint32_t>(bytes.size()), &raw);
  const PlistHandle root(raw);
  if (root == nullptr) {
    why = "libplist could not read the binary property list";
    return std::nullopt;
  }
  return readNode(root.get(), 0, why);
}

std::vector<std::uint8_t> writeBinary(const PlistValue& value, std::string& why) {
  const PlistHandle root = buildNode(value);
  if (root == nullptr) {
    why = "libplist could not build the tree";
    return {};
  }
  char* raw = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root.get(), &raw, &length);
  const BinaryBuffer buffer(raw);
  if (buffer == nullptr || length == 0) {
    why = "libplist could not write the binary property list";
    return {};
  }
  const auto* begin = reinterpret_cast<const std::uint8_t*>(raw);
  return std::vector<std::uint8_t>(begin, begin + length);
}

// ---- XML documents -----------------------------------------------------------------------

void appendXmlEscaped(std::string_view text, std::string& out) {
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        // Carriage returns and other control characters as references, so that XML line-end
        // normalisation cannot change them.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') {
          out += "&#" + std::to_string(static_cast<int>(c)) + ';';
        } else {
          out += c;
        }
    }
  }
}

void writeXmlValue(const PlistValue& value, int indent, std::string& out) {
  out.append(static_cast<std::size_t>(indent), '\t');
  value.visit([&](const auto& stored) {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, bool>) {
      out += stored ? "<true/>" : "<false/>";
    } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
      out += "<integer>" + std::to_string(stored) + "</integer>";
    } else if constexpr (std::is_same_v<T, double>) {
      out += "<real>" + formatReal(stored) + "</real>";
    } else if constexpr (std::is_same_v<T, std::string>) {
      out += "<string>";
      appendXmlEscaped(stored, out);
      out += "</string>";
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      out += "<date>" + stored.iso8601() + "</date>";
    } else if constexpr (std::is_same_v<T, PlistData>) {
      out += "<data>" + encodeBase64(stored) + "</data>";
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      if (stored.empty()) {
        out += "<array/>";
      } else {
        out += "<array>\n";
        for (const PlistValue& element : stored) writeXmlValue(element, indent + 1, out);
        out.append(static_cast<std::size_t>(indent), '\t');
        out += "</array>";
      }
    } else {
      if (stored.empty()) {
        out += "<dict/>";
      } else {
        out += "<dict>\n";
        for (const auto& [key, element] : stored) {
          out.append(static_cast<std::size_t>(indent + 1), '\t');
          out += "<key>";
          appendXmlEscaped(key, out);
          out += "</key>\n";
          writeXmlValue(element, indent + 1, out);
        }
        out.append(static_cast<std::size_t>(indent), '\t');
        out += "</dict>";
      }
    }
  });
  out += '\n';
}

std::vector<std::uint8_t> writeXml(const PlistValue& value) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\">\n";
  writeXmlValue(value, 0, out);
  out += "</plist>\n";
  return std::vector<std::uint8_t>(out.begin(), out.end());
}

// Reads the XML dialect of property lists: one <plist> element around one value, with the
// usual prolog, comments, processing instructions, CDATA sections and character references.
class XmlPlistReader {
 public:
  explicit XmlPlistReader(std::string_view text) : text_(text) {}

  std::optional<PlistValue> read(std::string& why) {
    auto value = readDocument();
    if (!value) why = why_;
    return value;
  }

 private:
  struct Tag {
    enum Kind { kOpen, kClose, kEmpty } kind = kOpen;
    std::string_view name;
  };

  std::optional<PlistValue> readDocument() {
    if (text_.starts_with("\xEF\xBB\xBF")) pos_ = 3;
    if (!skipMisc()) return std::nullopt;
    const auto root = readTag();
    if (!root) return std::nullopt;
    if (root->kind == Tag::kClose || root->name != "plist") {
      fail("the document does not start with <plist>");
      return std::nullopt;
    }
    if (root->kind == Tag::kEmpty) {
      fail("<plist> holds no value");
      return std::nullopt;
    }
    if (!skipMisc()) return std::nullopt;
    const auto first = readTag();
    if (!first) return std::nullopt;
    if (first->kind == Tag::kClose) {
      fail("<plist> holds no value");
      return std::nullopt;
    }
    auto value = readValue(*first, 0);
    if (!value || !skipMisc()) return std::nullopt;
    const auto end = readTag();
    if (!end) return std::nullopt;
    if (end->kind != Tag::kClose || end->name != "plist") {
      fail("<plist> holds more than one value");
      return std::nullopt;
    }
    if (!skipMisc()) return std::nullopt;
    if (pos_ != text_.size()) {
      fail("there is content after </plist>");
      return std::nullopt;
    }
    return value;
  }

  std::optional<PlistValue> readValue(const Tag& tag, int depth) {
    if (tag.kind == Tag::kClose) {
      fail("</" + std::string(tag.name) + "> stands where a value belongs");
      return std::nullopt;
    }
    const std::string_view name = tag.name;
    if (name == "true" || name == "false") {
      if (tag.kind == Tag::kOpen && !readEmptyContent(name)) return std::nullopt;
      return PlistValue(name == "true");
    }
    if (name == "array" || name == "dict") {
      if (depth + 1 > kPlistMaxDepth) {
        fail("the containers are nested too deeply");
        return std::nullopt;
      }
      if (name == "array") {
        if (tag.kind == Tag::kEmpty) return PlistValue(PlistArray{});
        return readArray(depth + 1);
      }
      if (tag.kind == Tag::kEmpty) return PlistValue(PlistDictionary{});
      return readDictionary(depth + 1);
    }
    if (name == "key") {
      fail("<key> stands outside a dictionary");
      return std::nullopt;
    }
    if (name != "string" && name != "integer" && name != "real" && name != "date" &&
        name != "data") {
      fail("<" + std::string(name) + "> is not a property list element");
      return std::nullopt;
    }
    std::string content;
    if (tag.kind == Tag::kOpen && !readContent(name, content)) return std::nullopt;
    if (name == "string") {
      if (!isValidUtf8(content)) {
        fail("a <string> is not valid UTF-8");
        return std::nullopt;
      }
      return PlistValue(std::move(content));
    }
    if (name == "integer") return parseInteger(trimXmlSpace(content));
    if (name == "real") return parseReal(trimXmlSpace(content));
    if (name == "date") {
      auto date = PlistDate::fromIso8601(trimXmlSpace(content));
      if (!date) {
        fail("<date> holds \"" + content + "\", which is not a supported date");
        return std::nullopt;
      }
      return PlistValue(*date);
    }
    auto data = decodeBase64(content);
    if (!data) {
      fail("<data> does not hold valid base64");
      return std::nullopt;
    }
    return PlistValue(std::move(*data));
  }

  std::optional<PlistValue> readArray(int depth) {
    PlistArray array;
    while (true) {
      if (!skipMisc()) return std::nullopt;
      const auto tag = readTag();
      if (!tag) return std::nullopt;
      if (tag->kind == Tag::kClose) {
        if (tag->name != "array") return mismatched("array", tag->name);
        return PlistValue(std::move(array));
      }
      auto element = readValue(*tag, depth);
      if (!element) return std::nullopt;
      array.push_back(std::move(*element));
    }
  }

  std::optional<PlistValue> readDictionary(int depth) {
    PlistDictionary dictionary;
    while (true) {
      if (!skipMisc()) return std::nullopt;
      const auto keyTag = readTag();
      if (!keyTag) return std::nullopt;
      if (keyTag->kind == Tag::kClose) {
        if (keyTag->name != "dict") return mismatched("dict", keyTag->name);
        return PlistValue(std::move(dictionary));
      }
      if (keyTag->name != "key") {
        fail("<" + std::string(keyTag->name) + "> stands where a dictionary key belongs");
        return std::nullopt;
      }
      std::string key;
      if (keyTag->kind == Tag::kOpen && !readContent("key", key)) return std::nullopt;
      if (!isValidUtf8(key)) {
        fail("a <key> is not valid UTF-8");
        return std::nullopt;
      }
      if (!skipMisc()) return std::nullopt;
      const auto valueTag = readTag();
      if (!valueTag) return std::nullopt;
      if (valueTag->kind == Tag::kClose || valueTag->name == "key") {
        fail("the key \"" + key + "\" has no value");
        return std::nullopt;
      }
      auto element = readValue(*valueTag, depth);
      if (!element) return std::nullopt;
      if (dictionary.contains(key)) {
        fail("a dictionary holds the key \"" + key + "\" twice");
        return std::nullopt;
      }
      dictionary.emplace(std::move(key), std::move(*element));
    }
  }

  std::optional<PlistValue> parseInteger(std::string_view text) {
    std::string_view digits = text;
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) digits.remove_prefix(1);
    int base = 10;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
      base = 16;
      digits.remove_prefix(2);
    }
    std::uint64_t magnitude = 0;
    const auto result =
        std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
    const bool valid =
        !digits.empty() && result.ec == std::errc{} && result.ptr == digits.data() + digits.size();
    const std::uint64_t negativeLimit =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
    if (!valid || (negative && magnitude > negativeLimit)) {
      fail("<integer> holds \"" + std::string(text) + "\", which is not a 64-bit integer");
      return std::nullopt;
    }
    if (negative) return PlistValue(static_cast<std::int64_t>(0 - magnitude));
    return PlistValue(magnitude);
  }

  std::optional<PlistValue> parseReal(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "nan") return PlistValue(std::numeric_limits<double>::quiet_NaN());
    if (lower == "inf" || lower == "+inf" || lower == "infinity" || lower == "+infinity") {
      return PlistValue(std::numeric_limits<double>::infinity());
    }
    if (lower == "-inf" || lower == "-infinity") {
      return PlistValue(-std::numeric_limits<double>::infinity());
    }
    std::string_view number = text;
    if (number.starts_with('+')) number.remove_prefix(1);
    double value = 0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    if (number.empty() || result.ec != std::errc{} || result.ptr != number.data() + number.size()) {
      fail("<real> holds \"" + std::string(text) + "\", which is not a number");
      return std::nullopt;
    }
    return PlistValue(value);
  }

  // Character data up to </name>, with references resolved and CDATA sections copied.
  bool readContent(std::string_view name, std::string& out) {
    while (pos_ < text_.size()) {
      const char c = text_[pos_];
      if (c == '<') {
        const std::string_view rest = text_.substr(pos_);
        if (rest.starts_with("<![CDATA[")) {
          const std::size_t end = text_.find("]]>", pos_ + 9);
          if (end == std::string_view::npos) return fail("a CDATA section is not closed");
          out.append(text_.substr(pos_ + 9, end - pos_ - 9));
          pos_ = end + 3;
          continue;
        }
        if (rest.starts_with("<!--")) {
          if (!skipComment()) return false;
          continue;
        }
        const auto tag = readTag();
        if (!tag) return false;
        if (tag->kind != Tag::kClose) {
          return fail("<" + std::string(tag->name) + "> stands inside <" + std::string(name) + ">");
        }
        if (tag->name != name) return mismatched(name, tag->name).has_value();
        return true;
      }
      if (c == '\0') return fail("<" + std::string(name) + "> holds a NUL character");
      if (c == '&') {
        if (!readReference(out)) return false;
        continue;
      }
      if (c == '\r') {
        // XML line ends: CR LF and lone CR read as LF.
        out += '\n';
        pos_ += text_.substr(pos_).starts_with("\r\n") ? 2 : 1;
        continue;
      }
      out += c;
      ++pos_;
    }
    return fail("<" + std::string(name) + "> is not closed");
  }

  // After <true> or <false>: only whitespace or comments, then the closing tag.
  bool readEmptyContent(std::string_view name) {
    std::string content;
    if (!readContent(name, content)) return false;
    if (!trimXmlSpace(content).empty()) {
      return fail("<" + std::string(name) + "> holds text");
    }
    return true;
  }

  bool readReference(std::string& out) {
    const std::size_t end = text_.find(';', pos_);
    if (end == std::string_view::npos || end - pos_ > 12) {
      return fail("an '&' does not start a reference");
    }
    const std::string_view entity = text_.substr(pos_ + 1, end - pos_ - 1);
    pos_ = end + 1;
    if (entity == "lt") {
      out += '<';
    } else if (entity == "gt") {
      out += '>';
    } else if (entity == "amp") {
      out += '&';
    } else if (entity == "quot") {
      out += '"';
    } else if (entity == "apos") {
      out += '\'';
    } else if (entity.starts_with('#')) {
      std::string_view digits = entity.substr(1);
      int base = 10;
      if (digits.starts_with('x')) {
        base = 16;
        digits.remove_prefix(1);
      }
      std::uint32_t codePoint = 0;
      const auto result =
          std::from_chars(digits.data(), digits.data() + digits.size(), codePoint, base);
      if (digits.empty() || result.ec != std::errc{} ||
          result.ptr != digits.data() + digits.size() || codePoint == 0 || codePoint > 0x10FFFF ||
          (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return fail("&" + std::string(entity) + "; is not a valid character reference");
      }
      appendUtf8(out, codePoint);
    } else {
      return fail("&" + std::string(entity) + "; is not a known entity");
    }
    return true;
  }

  std::optional<Tag> readTag() {
    if (pos_ >= text_.size()) {
      fail("the document ends too early");
      return std::nullopt;
    }
    if (text_[pos_] != '<') {
      fail("there is text where an element belongs");
      return std::nullopt;
    }
    Tag tag;
    std::size_t cursor = pos_ + 1;
    if (cursor < text_.size() && text_[cursor] == '/') {
      tag.kind = Tag::kClose;
      ++cursor;
    }
    const std::size_t nameStart = cursor;
    while (cursor < text_.size() &&
           (std::isalnum(static_cast<unsigned char>(text_[cursor])) ||
            std::strchr("-_:.", text_[cursor]) != nullptr) &&
           text_[cursor] != '\0') {
      ++cursor;
    }
    tag.name = text_.substr(nameStart, cursor - nameStart);
    if (tag.name.empty()) {
      fail("a '<' does not start an element");
      return std::nullopt;
    }
    // Attributes are skipped; quoted values may hold '>'.
    char quote = 0;
    while (cursor < text_.size()) {
      const char c = text_[cursor];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        if (tag.kind == Tag::kClose) break;
        quote = c;
      } else if (c == '>') {
        break;
      } else if (tag.kind == Tag::kClose && !isXmlSpace(c)) {
        break;
      }
      ++cursor;
    }
    if (cursor >= text_.size() || text_[cursor] != '>') {
      fail("the tag <" + std::string(tag.name) + "> is not closed");
      return std::nullopt;
    }
    if (tag.kind == Tag::kOpen && text_[cursor - 1] == '/') tag.kind = Tag::kEmpty;
    pos_ = cursor + 1;
    return tag;
  }

  // Skips whitespace, comments, processing instructions and the document type declaration.
  bool skipMisc() {
    while (true) {
      while (pos_ < text_.size() && isXmlSpace(text_[pos_])) ++pos_;
      const std::string_view rest = text_.substr(pos_);
      if (rest.starts_with("<!--")) {
        if (!skipComment()) return false;
      } else if (rest.starts_with("<?")) {
        const std::size_t end = text_.find("?>", pos_ + 2);
        if (end == std::string_view::npos) return fail("a processing instruction is not closed");
        pos_ = end + 2;
      } else if (rest.starts_with("<!DOCTYPE")) {
        int brackets = 0;
        std::size_t cursor = pos_ + 9;
        while (cursor < text_.size() && (text_[cursor] != '>' || brackets > 0)) {
          if (text_[cursor] == '[') ++brackets;
          if (text_[cursor] == ']') --brackets;
          ++cursor;
        }
        if (cursor >= text_.size()) return fail("the document type declaration is not closed");
        pos_ = cursor + 1;
      } else {
        return true;
      }
    }
  }

  bool skipComment() {
    const std::size_t end = text_.find("-->", pos_ + 4);
    if (end == std::string_view::npos) return fail("a comment is not closed");
    pos_ = end + 3;
    return true;
  }

  std::optional<PlistValue> mismatched(std::string_view open, std::string_view close) {
    fail("<" + std::string(open) + "> is closed by </" + std::string(close) + ">");
    return std::nullopt;
  }

  bool fail(const std::string& message) {
    if (why_.empty()) {
      const auto line =
          1 + std::count(text_.begin(), text_.begin() + std::min(pos_, text_.size()), '\n');
      why_ = "XML property list, line " + std::to_string(line) + ": " + message;
    }
    return false;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  std::string why_;
};

void appendDescription(const PlistValue& value, std::string& out) {
  value.visit([&](const auto& stored) {
    using T = std::decay_t<decltype(stored)>;
    if constexpr (std::is_same_v<T, bool>) {
      out += stored ? "YES" : "NO";
    } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
      out += std::to_string(stored);
    } else if constexpr (std::is_same_v<T, double>) {
      out += formatReal(stored);
    } else if constexpr (std::is_same_v<T, std::string>) {
      out += '"';
      for (const char c : stored) {
        if (c == '"' || c == '\\') {
          out += '\\';
          out += c;
        } else if (c == '\n') {
          out += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += c;
        }
      }
      out += '"';
    } else if constexpr (std::is_same_v<T, PlistDate>) {
      out += stored.iso8601();
    } else if constexpr (std::is_same_v<T, PlistData>) {
      constexpr std::size_t kShown = 32;
      out += '<';
      for (std::size_t i = 0; i < std::min(stored.size(), kShown); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02x", stored[i]);
        out += hex;
      }
      if (stored.size() > kShown) out += "... " + std::to_string(stored.size()) + " bytes";
      out += '>';
    } else if constexpr (std::is_same_v<T, PlistArray>) {
      out += '(';
      for (std::size_t i = 0; i < stored.size(); ++i) {
        if (i > 0) out += ", ";
        appendDescription(stored[i], out);
      }
      out += ')';
    } else {
      out += '{';
      bool first = true;
      for (const auto& [key, element] : stored) {
        if (!first) out += "; ";
        first = false;
        out += key + " = ";
        appendDescription(element, out);
      }
      out += '}';
    }
  });
}

}  // namespace

// ---- PlistDate -----------------------------------------------------------------------------

bool PlistDate::isSupported() const { return time >= kFirstDate && time <= kLastDate; }

std::string PlistDate::iso8601() const {
  const auto day = std::chrono::floor<days>(time);
  const std::chrono::year_month_day ymd(day);
  const std::chrono::hh_mm_ss clock(time - day);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d",
                static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  std::string text(buffer);
  if (const auto micros = clock.subseconds().count(); micros != 0) {
    std::snprintf(buffer, sizeof buffer, ".%06d", static_cast<int>(micros));
    std::string fraction(buffer);
    while (fraction.back() == '0') fraction.pop_back();
    text += fraction;
  }
  return text + 'Z';
}

std::optional<PlistDate> PlistDate::fromIso8601(std::string_view text) {
  // YYYY-MM-DDTHH:MM:SS, then an optional fraction, then Z.
  constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:dd";
  if (text.size() < kPattern.size() + 1 || text.back() != 'Z') return std::nullopt;
  for (std::size_t i = 0; i < kPattern.size(); ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (kPattern[i] == 'd' ? !digit : text[i] != kPattern[i]) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    for (std::size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  std::int64_t micros = 0;
  const std::string_view fraction = text.substr(kPattern.size(), text.size() - kPattern.size() - 1);
  if (!fraction.empty()) {
    if (fraction.size() < 2 || fraction[0] != '.') return std::nullopt;
    std::int64_t scale = 100'000;
    for (const char c : fraction.substr(1)) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
      micros += (c - '0') * scale;
      scale /= 10;
    }
  }
  const std::chrono::year_month_day ymd{std::chrono::year{number(0, 4)},
                                        std::chrono::month{static_cast<unsigned>(number(5, 2))},
                                        std::chrono::day{static_cast<unsigned>(number(8, 2))}};
  const int hours = number(11, 2), minutes = number(14, 2), seconds = number(17, 2);
  if (!ymd.ok() || number(0, 4) == 0 || hours > 23 || minutes > 59 || seconds > 59) {
    return std::nullopt;
  }
  return PlistDate(TimePoint{sys_days{ymd}} + std::chrono::hours{hours} +
                   std::chrono::minutes{minutes} + std::chrono::seconds{seconds} +
                   microseconds{micros});
}

// ---- PlistValue ----------------------------------------------------------------------------

PlistValue::PlistValue() : storage_(PlistDictionary{}) {}

PlistValue::PlistValue(UnsignedTag, std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    storage_ = static_cast<std::int64_t>(value);
  } else {
    storage_ = value;
  }
}

PlistType PlistValue::type() const {
  static constexpr PlistType kTypes[] = {
      PlistType::kBoolean, PlistType::kInteger, PlistType::kInteger,
      PlistType::kReal,    PlistType::kString,  PlistType::kDate,
      PlistType::kData,    PlistType::kArray,   PlistType::kDictionary};
  static_assert(std::size(kTypes) == std::variant_size_v<decltype(storage_)>);
  return kTypes[storage_.index()];
}

std::optional<bool> PlistValue::asBool() const {
  if (const auto* value = std::get_if<bool>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::int64_t> PlistValue::asInteger() const {
  if (const auto* value = std::get_if<std::int64_t>(&storage_)) return *value;
  return std::nullopt;
}

std::optional<std::uint64_t> PlistValue::asUnsignedInteger() const {
  if (const auto* value = std::get_if<std::uint64_t>(&storage_)) return *value;
  if (const auto* value = std::get_if<std::int64_t>(&storage_); value != nullptr && *value >= 0) {
    return static_cast<std::uint64_t>(*value);
  }
  return std::nullopt;
}

std::optional<double> PlistValue::asDouble() const {
  if (const auto* value = std::get_if<double>(&storage_)) return *value;
  if (const auto* value = std::get_if<std::int64_t>(&storage_)) {
    return static_cast<double>(*value);
  }
  if (const auto* value = std::get_if<std::uint64_t>(&storage_)) {
    return static_cast<double>(*value);
  }
  return std::nullopt;
}

std::optional<PlistDate> PlistValue::asDate() const {
  if (const auto* value = std::get_if<PlistDate>(&storage_)) return *value;
  return std::nullopt;
}

const std::string* PlistValue::asString() const { return std::get_if<std::string>(&storage_); }
const PlistData* PlistValue::asData() const { return std::get_if<PlistData>(&storage_); }
const PlistArray* PlistValue::asArray() const { return std::get_if<PlistArray>(&storage_); }
PlistArray* PlistValue::asArray() { return std::get_if<PlistArray>(&storage_); }
const PlistDictionary* PlistValue::asDictionary() const {
  return std::get_if<PlistDictionary>(&storage_);
}
PlistDictionary* PlistValue::asDictionary() { return std::get_if<PlistDictionary>(&storage_); }

const PlistValue* PlistValue::find(std::string_view key) const {
  const PlistDictionary* dictionary = asDictionary();
  if (dictionary == nullptr) return nullptr;
  const auto found = dictionary->find(key);
  return found == dictionary->end() ? nullptr : &found->second;
}

std::string PlistValue::describe() const {
  std::string out;
  appendDescription(*this, out);
  return out;
}

bool PlistValue::isWritable(std::string* reason) const {
  std::string why;
  if (checkWritable(*this, 0, why)) return true;
  if (reason != nullptr) *reason = why;
  return false;
}

PlistHandle PlistValue::toPlist(std::string* error) const {
  std::string why;
  if (!checkWritable(*this, 0, why)) {
    if (error != nullptr) *error = why;
    return nullptr;
  }
  PlistHandle node = buildNode(*this);
  if (node == nullptr && error != nullptr) *error = "libplist could not build the tree";
  return node;
}

std::optional<PlistValue> PlistValue::fromPlist(plist_t node, std::string* error) {
  std::string why;
  std::optional<PlistValue> value;
  if (node == nullptr) {
    why = "there is no node";
  } else {
    value = readNode(node, 0, why);
  }
  if (!value && error != nullptr) *error = why;
  return value;
}

bool operator==(const PlistValue& a, const PlistValue& b) { return a.storage_ == b.storage_; }

// ---- Documents -----------------------------------------------------------------------------

std::optional<PlistValue> parsePropertyList(std::span<const std::uint8_t> bytes,
                                            std::string* error) {
  std::string why;
  std::optional<PlistValue> value;
  constexpr std::string_view kBinarySignature = "bplist";
  if (bytes.empty()) {
    why = "the property list is empty";
  } else if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
    why = "the property list is larger than 4 GiB";
  } else if (bytes.size() >= kBinarySignature.size() &&
             std::memcmp(bytes.data(), kBinarySignature.data(), kBinarySignature.size()) == 0) {
    value = parseBinary(bytes, why);
  } else {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    value = XmlPlistReader(text).read(why);
  }
  if (!value && error != nullptr) *error = why;
  return value;
}

PlistHandle parsePropertyListTree(std::span<const std::uint8_t> bytes, std::string* error) {
  std::string why;
  PlistHandle root;
  constexpr std::string_view kBinarySignature = "bplist";
  if (bytes.size() >= kBinarySignature.size() && bytes.size() <= 0xffffffffu &&
      std::memcmp(bytes.data(), kBinarySignature.data(), kBinarySignature.size()) == 0) {
    const auto trailer = readBinaryTrailer(bytes, why);
    if (trailer && checkBinaryStructure(bytes, *trailer, why)) {
      plist_t raw = nullptr;
      plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                     static_cast<std::uint32_t>(bytes.size()), &raw);
      root.reset(raw);
      if (root == nullptr) {
        why = "libplist could not read the binary property list";
      } else if (!readNode(root.get(), 0, why)) {
        root.reset();  // the same value checks as for PlistValue
      }
    }
  } else if (const auto value = parsePropertyList(bytes, &why)) {
    root = value->toPlist(&why);
  }
  if (root == nullptr && error != nullptr) *error = why;
  return root;
}

std::vector<std::uint8_t> serializePropertyList(const PlistValue& value, PlistFormat format,
                                                std::string* error) {
  std::string why;
  std::vector<std::uint8_t> document;
  if (checkWritable(value, 0, why)) {
    document = format == PlistFormat::kXml ? writeXml(value) : writeBinary(value, why);
  }
  if (document.empty()) {
    OrvexLogForCategory(kOrvexLogGeneral).error("cannot write property list: %@", why);
    if (error != nullptr) *error = why;
  }
  return document;
}

}  // namespace orvex
