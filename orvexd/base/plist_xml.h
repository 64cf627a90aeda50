// XML property lists: one <plist> element around one value, read with expat and written here.
//
// libplist 2.2 reads XML too, but turns malformed numbers into 0, empty data or the 1970 date
// without a word, drops the fractional seconds of dates and misreads dates outside 1901-2038,
// which is not acceptable for files an operator may edit by hand. The XML written here is the
// usual property list dialect, and libplist reads it.
//
// The reader takes the document as UTF-8 whatever its declaration says, skips comments,
// processing instructions and a document type declaration, and refuses a document that declares
// entities (none are expanded, so a document cannot grow while it is read). It keeps the
// containers it is inside on a stack of its own, never recursing on the nesting of the
// document, and refuses nesting beyond kPlistMaxDepth.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orvexd/base/property_list.h"

namespace orvex {

// Reads an XML document; nullopt, with the reason in `why` ("XML property list, line N: ..."),
// when it is malformed or holds something PlistValue cannot.
std::optional<PlistValue> readXmlPlist(std::span<const std::uint8_t> bytes, std::string& why);

// Writes a value that PlistValue::isWritable() accepts.
std::vector<std::uint8_t> writeXmlPlist(const PlistValue& value);

}  // namespace orvex
