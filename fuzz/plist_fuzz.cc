// Feeds arbitrary bytes to the property-list readers (XML and binary, as values and as libplist
// trees) and to the JSON view of a property list that the bag's disk copy is read through.
//
// Whatever is read must be writable, and read back the same from both formats; the JSON view of
// a document must come back the same from the binary copy the bag controller would write of it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/json_property_list.h"
#include "orvexd/base/property_list.h"

namespace {

using orvex::fuzz::check;

using orvex::PlistFormat;

// Values are compared through their XML form, which is exact and in which NaN equals itself.
std::vector<uint8_t> xml(const orvex::PlistValue& value) {
  return orvex::serializePropertyList(value, PlistFormat::kXml);
}

// A document written of `value` reads back as a value that writes the same document. (Binary
// dates hold what a double of seconds since 2001 holds, so `value` itself may differ from it.)
void checkRoundTrip(const orvex::PlistValue& value, PlistFormat format) {
  const auto bytes = orvex::serializePropertyList(value, format);
  check(!bytes.empty());
  const auto back = orvex::parsePropertyList(bytes);
  check(back.has_value());
  check(orvex::serializePropertyList(*back, format) == bytes);
  if (format == PlistFormat::kXml) check(xml(*back) == xml(value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);

  std::string why;
  const auto value = orvex::parsePropertyList(bytes, &why);
  check(value.has_value() == why.empty());
  const orvex::PlistHandle tree = orvex::parsePropertyListTree(bytes);
  check(value.has_value() == (tree != nullptr));
  if (value) {
    check(value->isWritable());
    check(!value->describe().empty());
    checkRoundTrip(*value, PlistFormat::kXml);
    checkRoundTrip(*value, PlistFormat::kBinary);
    const auto fromTree = orvex::PlistValue::fromPlist(tree.get());
    check(fromTree.has_value() && xml(*fromTree) == xml(*value));
  }

  if (const auto json = orvex::jsonFromPropertyList(bytes)) {
    const auto copy = orvex::binaryPropertyListFromJson(*json);
    check(!copy.empty());
    const auto back = orvex::jsonFromPropertyList(copy);
    check(back.has_value() && back->dump() == json->dump());
  }
  return 0;
}
