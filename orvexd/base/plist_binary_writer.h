// Writes binary property lists ("bplist00") straight from a PlistValue, without building a
// libplist tree, and byte for byte as libplist 2.2 writes the same value, so documents written
// before and after read the same and compare equal.
//
// The layout libplist gives a document, and so this writer:
// - objects are numbered depth first, a container before its elements; a dictionary's entries
//   in key order, each key before its value;
// - leaves of the same type and value (keys apart from strings) are written once and shared;
//   containers never are, and neither is data here (libplist shares equal data only when the
//   addresses of their nodes happen to hash alike, which nothing can reproduce);
// - integers take 1, 2, 4 or 8 bytes (a negative number 8), those above INT64_MAX the 16-byte
//   form; reals take 4 bytes when a float holds them exactly, else 8; dates 8;
// - strings are ASCII when every byte is, else UTF-16 big-endian; counts of 15 and more follow
//   the marker as an integer;
// - references take as many bytes as the object count needs, offsets as many as the offset of
//   the offset table needs (1 to 4, else 8), and the top object is object 0.
//
// A record's archive is given to the writer field by field (feedback_codec.h), so no tree is
// built for it; the writer keeps a flat list of the values given and orders the entries of each
// dictionary only when it numbers them.
//
// Threading: an instance keeps its buffers between documents so that writing many small ones
// allocates little; use one per thread (binaryPlistWriterForThread()).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/property_list.h"

namespace orvex {

class BinaryPlistWriter {
 public:
  // The document of a value that checkWritable() accepted, appended to `out`.
  void write(const PlistValue& value, std::vector<std::uint8_t>& out);

  // A document given piece by piece, in the order a depth-first walk meets its values: begin(),
  // then exactly one value (a container holds the values up to its end()), then finish(). Inside
  // a dictionary each value follows its key(); the entries may come in any order and are written
  // in key order, the last of equal keys winning. Text must be valid UTF-8 without NUL, the
  // containers nested no deeper than kPlistMaxDepth, as checkWritable() asks of a PlistValue.
  void begin();
  void key(std::string_view name);
  void boolean(bool value);
  void integer(std::int64_t value);
  // As PlistValue keeps them: a value that fits in int64_t is a signed integer.
  void unsignedInteger(std::uint64_t value);
  void real(double value);
  void string(std::string_view text);
  void date(PlistDate value);
  void data(std::span<const std::uint8_t> bytes);
  void value(const PlistValue& value);
  void beginArray();
  void beginDictionary();
  void end();
  // Appends the document to `out`.
  void finish(std::vector<std::uint8_t>& out);

 private:
  enum class Kind : std::uint8_t { kLeaf, kData, kArray, kDictionary };
  // A value as given: leaves with their object bytes, containers with their elements.
  struct Node {
    std::uint32_t bytesOffset = 0;  // leaves: their object in bytes_
    std::uint32_t bytesLength = 0;
    std::uint32_t keyOffset = 0;  // in a dictionary: the key's text in keys_
    std::uint32_t keyLength = 0;
    std::uint32_t keyObjectOffset = 0;  // and its object in bytes_
    std::uint32_t keyObjectLength = 0;
    std::uint32_t firstChild = 0;  // containers: their first element, 0 when none
    std::uint32_t lastChild = 0;
    std::uint32_t nextSibling = 0;  // the next element of the parent, 0 when none
    std::uint32_t count = 0;
    Kind kind = Kind::kLeaf;
  };
  // An object of the document.
  struct Object {
    std::uint32_t bytesOffset = 0;  // leaves: their bytes in bytes_
    std::uint32_t bytesLength = 0;  // leaves: > 0; containers: 0
    std::uint32_t firstRef = 0;     // containers: where their references start in refs_
    std::uint32_t count = 0;        // containers: elements (entries of dictionaries)
    std::uint8_t marker = 0;        // containers: 0xA0 or 0xD0; leaves: 1 for keys, else 0
  };

  void addNode(Kind kind, std::size_t bytesStart);
  void appendString(std::string_view text);
  // Numbers node `index` and what it holds, depth first; returns its object number.
  std::uint32_t number(std::uint32_t index);
  // The object of the leaf bytes at `offset`: an earlier one of equal kind and bytes, or a new
  // one.
  std::uint32_t shareLeaf(std::uint32_t offset, std::uint32_t length, bool isKey);
  void growTable();
  void releaseLargeBuffers();

  std::vector<Node> nodes_;
  std::vector<std::uint32_t> open_;   // the containers not ended yet, innermost last
  std::vector<std::uint8_t> bytes_;   // object bytes of leaves and keys
  std::vector<char> keys_;            // key texts
  std::optional<Node> pendingKey_;    // the key of the next value, in its key fields
  std::vector<std::uint32_t> order_;  // dictionary entries being numbered, in key order
  std::vector<Object> objects_;
  std::vector<std::uint32_t> refs_;
  std::vector<std::uint32_t> table_;  // open addressing: leaf object number + 1, 0 when free
  std::u16string utf16_;
  std::vector<std::uint64_t> offsets_;
};

// Seconds since 2001-01-01T00:00:00Z, as binary documents keep dates.
double referenceSeconds(PlistDate date);

// The calling thread's writer.
BinaryPlistWriter& binaryPlistWriterForThread();

}  // namespace orvex
