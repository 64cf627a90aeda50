// Binary property lists ("bplist00") and libplist trees, through libplist 2.2.
//
// Integers. libplist keeps every integer as a 64-bit pattern in a PLIST_UINT node and writes it
// as a signed number (8 bytes, two's complement), except for nodes it has read as numbers above
// INT64_MAX, which it writes in the unsigned 16-byte form. Such nodes are made here by reading a
// one-object document, since no node constructor of libplist 2.2 gives them.
//
// Dates. Binary documents count seconds since 2001-01-01T00:00:00Z in a double, which is exact
// to the microsecond for dates within about 136 years of 2001 (1865-2137) and rounds to the
// double's resolution further out. Dates are handed to libplist as that double directly, so its
// 32-bit seconds accessors (1932-2069) do not limit the range.
//
// libplist reads binary documents recursively and expands every reference into a copy of what
// it names, so the structure is checked here first, without recursion: offsets and lengths,
// nesting no deeper than kPlistMaxDepth, no container shared between two parents (their
// expansion could be exponential), and no long strings or data named from so many places that
// expanding them would copy more than eight times the size of the document (plus 1 MiB). Short
// shared keys and values are not limited.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orvexd/base/property_list.h"

namespace orvex {

// Reads a binary document; nullopt, with the reason in `why`, when it is malformed, truncated or
// holds something PlistValue cannot.
std::optional<PlistValue> readBinaryPlist(std::span<const std::uint8_t> bytes, std::string& why);

// The same, with the same checks, as libplist's tree, which keeps the order of dictionary keys.
PlistHandle readBinaryPlistTree(std::span<const std::uint8_t> bytes, std::string& why);

// Writes a value that PlistValue::isWritable() accepts, as libplist would but without its tree
// (plist_binary_writer.h); `why` is kept for the callers of the libplist writer and stays as it is.
std::vector<std::uint8_t> writeBinaryPlist(const PlistValue& value, std::string& why);

// The libplist tree of a value that PlistValue::isWritable() accepts; null when libplist fails.
PlistHandle plistTreeFromValue(const PlistValue& value);

// The value of a libplist tree. Nodes of the types KEY, UID and NONE, dictionaries with a key
// twice, invalid UTF-8 and nesting beyond kPlistMaxDepth give nullopt and the reason in `why`.
std::optional<PlistValue> valueFromPlistTree(plist_t node, std::string& why);

}  // namespace orvex
