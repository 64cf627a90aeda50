#include "orvexd/base/property_list.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "orvexd/base/json_property_list.h"
#include "orvexd/base/plist_binary.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using std::chrono::sys_days;

std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

PlistDate date(std::chrono::year_month_day day, std::chrono::microseconds offset = {}) {
  return PlistDate(PlistDate::TimePoint{sys_days{day}} + offset);
}

std::optional<PlistValue> roundTrip(const PlistValue& value, PlistFormat format) {
  const auto bytes = serializePropertyList(value, format);
  EXPECT_FALSE(bytes.empty());
  std::string error;
  auto parsed = parsePropertyList(bytes, &error);
  EXPECT_TRUE(parsed) << error;
  return parsed;
}

// A binary document of the given objects with 4-byte offsets and references.
std::vector<std::uint8_t> binaryDocument(const std::vector<std::vector<std::uint8_t>>& objects,
                                         std::uint64_t top = 0) {
  std::vector<std::uint8_t> out = bytesOf("bplist00");
  std::vector<std::uint64_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  const std::uint64_t table = out.size();
  const auto put = [&](std::uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  };
  for (const auto offset : offsets) put(offset, 4);
  out.insert(out.end(), 6, 0);
  out.push_back(4);
  out.push_back(4);
  put(objects.size(), 8);
  put(top, 8);
  put(table, 8);
  return out;
}

std::vector<std::uint8_t> container(std::uint8_t type, std::vector<std::uint32_t> refs) {
  std::vector<std::uint8_t> out{static_cast<std::uint8_t>(type << 4 | 0x0F), 0x12};
  const auto count = static_cast<std::uint32_t>(type == 0xD ? refs.size() / 2 : refs.size());
  for (int i = 3; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(count >> (8 * i)));
  for (const auto ref : refs) {
    for (int i = 3; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(ref >> (8 * i)));
  }
  return out;
}

PlistDictionary sampleDictionary() {
  PlistData allBytes;
  for (int i = 0; i < 256; ++i) allBytes.push_back(static_cast<std::uint8_t>(i));
  // "privateUse" holds characters the XML reader uses as stand-ins.
  return PlistDictionary{
      {"yes", true},
      {"no", false},
      {"minusOne", -1},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"unsignedMax", std::numeric_limits<std::uint64_t>::max()},
      {"unsignedJustAbove", std::uint64_t{1} << 63},
      {"tiny", 5e-324},
      {"huge", -1.5e300},
      {"infinite", std::numeric_limits<double>::infinity()},
      {"empty", ""},
      {"unicode", "h\u00e9llo w\u00f6rld \U0001F600 \u65e5\u672c"},
      {"markup", "<a href=\"x\">&amp;</a> ]]>"},
      {"controls", "tab\tline\ncr\rbell\x07"},
      {"privateUse", "\U000F0000\U000F0007\U000F0020"},
      {"noData", PlistData{}},
      {"allBytes", allBytes},
      {"emptyArray", PlistArray{}},
      {"emptyDict", PlistDictionary{}},
      {"nested", PlistArray{PlistDictionary{{"deep", PlistArray{1, "two", PlistArray{}}}}, 3.5}},
      {"k\u00ebys \U0001F511", "unicode key"},
      {"reference", date(std::chrono::year{2001} / 1 / 1)},
      {"lastSecondOf2000", date(std::chrono::year{2001} / 1 / 1, -500ms)},
      {"before", date(std::chrono::year{1969} / 7 / 20, 20h + 17min + 123456us)},
      {"earliest", date(std::chrono::year{1932} / 12 / 13, 20h + 45min + 52s)},
      {"after2038", date(std::chrono::year{2100} / 3 / 1, 12h + 999999us)}};
}

TEST(PropertyList, RoundTripsEveryTypeThroughXmlAndBinary) {
  const PlistValue value(sampleDictionary());
  for (const auto format : {PlistFormat::kXml, PlistFormat::kBinary}) {
    SCOPED_TRACE(format == PlistFormat::kXml ? "xml" : "binary");
    const auto parsed = roundTrip(value, format);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, value) << parsed->describe();
    EXPECT_TRUE(parsed->find("unsignedMax")->isUnsignedInteger());
    // NaN never equals itself, so it is checked apart; scalars stand at the top too.
    EXPECT_TRUE(std::isnan(*roundTrip(std::nan(""), format).value_or(0).asDouble()));
    EXPECT_EQ(roundTrip("top", format), PlistValue("top"));
  }
  // The XML date form reaches further than the binary double keeps microseconds.
  const PlistValue extremes(
      PlistArray{date(std::chrono::year{1} / 1 / 1), date(std::chrono::year{10000} / 1 / 1, -1us)});
  EXPECT_EQ(roundTrip(extremes, PlistFormat::kXml), extremes);
  const auto far = roundTrip(extremes, PlistFormat::kBinary);
  ASSERT_TRUE(far);
  EXPECT_LT(std::chrono::abs(far->asArray()->at(1).asDate()->time -
                             extremes.asArray()->at(1).asDate()->time),
            1ms);
}

TEST(PropertyList, WritesTheFormsLibplistAndOperatorsExpect) {
  const auto document =
      serializePropertyList(PlistDictionary{{"n", -5},
                                            {"u", std::numeric_limits<std::uint64_t>::max()},
                                            {"r", 2.0},
                                            {"d", date(std::chrono::year{2001} / 1 / 1, 1500ms)},
                                            {"s", "a<b"}},
                            PlistFormat::kXml);
  const std::string xml(document.begin(), document.end());
  EXPECT_NE(xml.find("<integer>-5</integer>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<integer>18446744073709551615</integer>"), std::string::npos);
  EXPECT_NE(xml.find("<date>2001-01-01T00:00:01.5Z</date>"), std::string::npos);
  EXPECT_NE(xml.find("<string>a&lt;b</string>"), std::string::npos);

  // Negative integers take 8 bytes in binary, values above INT64_MAX the 16-byte form, and
  // dates are the exact double of seconds since 2001.
  const auto binary = serializePropertyList(PlistArray{-1}, PlistFormat::kBinary);
  const std::vector<std::uint8_t> minusOne{0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  EXPECT_NE(std::search(binary.begin(), binary.end(), minusOne.begin(), minusOne.end()),
            binary.end());
  const auto dateBinary =
      serializePropertyList(date(std::chrono::year{2001} / 1 / 1, -500ms), PlistFormat::kBinary);
  const std::vector<std::uint8_t> minusHalf{0x33, 0xbf, 0xe0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::vector<std::uint8_t>(dateBinary.begin() + 8, dateBinary.begin() + 17), minusHalf);

  // A document written by libplist (with its prolog) reads here.
  const PlistValue sample(sampleDictionary());
  std::string error;
  const PlistHandle node = sample.toPlist(&error);
  ASSERT_NE(node, nullptr) << error;
  char* written = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node.get(), &written, &length);
  const std::unique_ptr<char, CFree<&plist_to_xml_free>> buffer(written);
  const auto reread =
      parsePropertyList(std::span(reinterpret_cast<const std::uint8_t*>(written), length), &error);
  ASSERT_TRUE(reread) << error;
  EXPECT_EQ(*reread->find("unicode")->asString(), *sample.find("unicode")->asString());
  EXPECT_EQ(reread->find("minusOne")->asInteger(), -1);
}

TEST(PropertyList, ValueAccessorsConvertOnlyWhereLossless) {
  EXPECT_EQ(PlistValue(std::uint64_t{7}), PlistValue(7));
  EXPECT_FALSE(PlistValue(std::uint64_t{7}).isUnsignedInteger());
  EXPECT_EQ(PlistValue(-3).asUnsignedInteger(), std::nullopt);
  EXPECT_EQ(PlistValue(2.5).asInteger(), std::nullopt);
  EXPECT_EQ(
      PlistValue(PlistDictionary{{"b", PlistArray{true, PlistData{1, 255}}}, {"a", "q\"uote"}})
          .describe(),
      "{a = \"q\\\"uote\"; b = (YES, <01ff>)}");
  EXPECT_EQ(PlistDate::fromIso8601("2024-02-29T23:59:59.1234567Z"),
            date(std::chrono::year{2024} / 2 / 29, 23h + 59min + 59s + 123456us));
  for (const char* bad : {"2023-02-29T00:00:00Z", "2001-01-01T24:00:00Z", "2001-01-01 00:00:00Z",
                          "2001-01-01T00:00:00", "0000-01-01T00:00:00Z", "2001-01-01T00:00:00.Z"}) {
    EXPECT_EQ(PlistDate::fromIso8601(bad), std::nullopt) << bad;
  }
}

TEST(PropertyList, WritesAndReadsTheDeepestNestingAndRefusesDeeper) {
  PlistValue deep = PlistArray{};
  for (int i = 0; i < kPlistMaxDepth; ++i) deep = PlistArray{deep};
  const PlistValue unwritable[] = {
      PlistValue(std::string("nul\0inside", 10)),
      PlistValue("\xff\xfe latin-1"),
      PlistDictionary{{std::string("key\xc0\x80"), 1}},
      PlistValue(PlistDate(PlistDate::TimePoint{sys_days{std::chrono::year{10000} / 1 / 1}})),
      deep,
  };
  for (const auto& value : unwritable) {
    std::string error;
    EXPECT_TRUE(serializePropertyList(value, PlistFormat::kXml, &error).empty());
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(serializePropertyList(value, PlistFormat::kBinary).empty());
    EXPECT_EQ(value.toPlist(), nullptr);
  }
  // kPlistMaxDepth containers, in dictionaries and arrays, both ways through both formats.
  PlistValue deepest = PlistDictionary{};
  for (int i = 1; i < kPlistMaxDepth; ++i) {
    deepest = i % 2 ? PlistValue(PlistArray{1, deepest}) : PlistDictionary{{"k", deepest}};
  }
  EXPECT_EQ(roundTrip(deepest, PlistFormat::kXml), deepest);
  EXPECT_EQ(roundTrip(deepest, PlistFormat::kBinary), deepest);
  std::string nested;
  for (int i = 0; i < kPlistMaxDepth; ++i) nested = "<array>" + nested + "</array>";
  std::string error;
  EXPECT_FALSE(parsePropertyList(bytesOf("<plist><array>" + nested + "</array></plist>"), &error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos) << error;

  // The bag's JSON copies keep to the same limit.
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  for (int i = 1; i < kPlistMaxDepth; ++i) json = nlohmann::ordered_json::array({json});
  const auto document = binaryPropertyListFromJson(json);
  ASSERT_FALSE(document.empty());
  EXPECT_EQ(jsonFromPropertyList(document), json);
  EXPECT_TRUE(binaryPropertyListFromJson({{"k", json}}, &error).empty());
  EXPECT_NE(error.find("nested too deeply"), std::string::npos) << error;
}

// A few representative refusals (the fuzz target throws arbitrary documents at both readers).
TEST(PropertyList, RejectsMalformedXmlWithAReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"<plist><integer>18446744073709551616</integer></plist>", "not a 64-bit integer"},
      {"<plist><dict><key>a</key><true/><key>a</key><false/></dict></plist>", "twice"},
      {"<plist><array><integer>1</array></plist>", "<integer> is closed by </array>"},
      {"<plist>\n<true>yes</true></plist>", "line 2: <true> holds text"},
      {"<plist><string>a &bogus; b</string></plist>", "&bogus; is not a known entity"},
      {"<plist><string>\xff</string></plist>", "<string> is not valid UTF-8"},
      {"<plist><dict><key>Trace", "<key> is not closed"},
      // Entities are refused where they are declared, before anything expands them.
      {"<!DOCTYPE plist [<!ENTITY x \"y\">]><plist><string>&x;</string></plist>",
       "declares the entity &x;"},
      {"<!DOCTYPE plist [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">]>"
       "<plist><string>&b;</string></plist>",
       "entities are refused"},
  };
  for (const auto& [text, reason] : cases) {
    std::string error;
    EXPECT_EQ(parsePropertyList(bytesOf(text), &error), std::nullopt) << text;
    EXPECT_NE(error.find(reason), std::string::npos) << text << " -> " << error;
  }
  EXPECT_EQ(parsePropertyList({}), std::nullopt);

  // What the format allows around the values.
  const auto lenient = parsePropertyList(bytesOf(
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<!DOCTYPE plist PUBLIC "
      "\"-//X//DTD PLIST 1.0//EN\" \"http://localhost/plist.dtd\">\n<plist version='1.0'><!-- "
      "note --><dict>\r\n<key>s</key><string>a<![CDATA[<&#7;>]]>&#x1F600;<!-- c -->\r\nb</string>"
      "<key>i</key><integer> 0x1F </integer><key>r</key><real>+Infinity</real><key>d</key>"
      "<data>AQID\nBA</data><key>e</key><string/><key>\u00e9</key><true/></dict></plist>"));
  ASSERT_TRUE(lenient);
  EXPECT_EQ(*lenient, PlistValue(PlistDictionary{{"s", "a<&#7;>\U0001F600\nb"},
                                                 {"i", 31},
                                                 {"r", std::numeric_limits<double>::infinity()},
                                                 {"d", PlistData{1, 2, 3, 4}},
                                                 {"e", ""},
                                                 {"\u00e9", true}}));
}

TEST(PropertyList, RejectsMalformedBinaryWithoutCrashing) {
  // Nesting that would exhaust libplist's recursive reader.
  std::vector<std::vector<std::uint8_t>> chain;
  for (std::uint32_t i = 0; i < 100000; ++i) chain.push_back(container(0xA, {i + 1}));
  chain.push_back({0xA0});
  const std::pair<std::vector<std::uint8_t>, const char*> cases[] = {
      {binaryDocument(chain), "nested too deeply"},
      // 40 levels each holding the next twice: 2^40 copies once expanded.
      {[] {
         std::vector<std::vector<std::uint8_t>> objects;
         for (std::uint32_t i = 0; i < 40; ++i) objects.push_back(container(0xA, {i + 1, i + 1}));
         objects.push_back({0x09});
         return binaryDocument(objects);
       }(),
       "from two places"},
      {binaryDocument({container(0xA, {7})}), "does not exist"},
      {binaryDocument({{0x5F, 0x13, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 'a'}}),
       "truncated"},
      {binaryDocument({{0x09}}, 5), "top object"},
      {bytesOf("bplist00"), "too short"},
  };
  for (const auto& [bytes, reason] : cases) {
    std::string error;
    EXPECT_EQ(parsePropertyList(bytes, &error), std::nullopt) << reason;
    EXPECT_NE(error.find(reason), std::string::npos) << reason << " -> " << error;
  }
}

// An object of a counted type (data 0x4, ASCII 0x5, UTF-16 0x6) with a two-byte count.
std::vector<std::uint8_t> counted(std::uint8_t type, std::uint16_t count, std::uint8_t fill) {
  std::vector<std::uint8_t> out{static_cast<std::uint8_t>(type << 4 | 0x0F), 0x11,
                                static_cast<std::uint8_t>(count >> 8),
                                static_cast<std::uint8_t>(count)};
  out.insert(out.end(), type == 0x6 ? 2 * std::size_t{count} : count, fill);
  return out;
}

TEST(PropertyList, ReadsSharedKeysAndValuesButRefusesToCopyALongLeafFromManyPlaces) {
  constexpr std::uint32_t kReferences = 20000;
  constexpr std::uint16_t kLeafSize = 20000;
  const std::vector<std::uint32_t> toLeaf(kReferences, 1);
  // An array of dictionaries that all use one long key.
  std::vector<std::uint32_t> dictionaries(kReferences);
  for (std::uint32_t i = 0; i < kReferences; ++i) dictionaries[i] = 3 + i;
  std::vector<std::vector<std::uint8_t>> keyed{
      container(0xA, dictionaries), counted(0x5, kLeafSize, 'k'), {0x09}};
  keyed.insert(keyed.end(), kReferences, container(0xD, {1, 2}));
  const std::pair<const char*, std::vector<std::uint8_t>> amplified[] = {
      {"data", binaryDocument({container(0xA, toLeaf), counted(0x4, kLeafSize, 0xAB)})},
      {"UTF-16 string", binaryDocument({container(0xA, toLeaf), counted(0x6, kLeafSize, 'u')})},
      {"dictionary key", binaryDocument(keyed)},
  };
  for (const auto& [what, bytes] : amplified) {
    std::string error;
    EXPECT_EQ(parsePropertyList(bytes, &error), std::nullopt) << what;
    EXPECT_NE(error.find("from too many places"), std::string::npos) << what << ": " << error;
  }
  const auto few = parsePropertyList(
      binaryDocument({container(0xA, {1, 1, 1, 1}), counted(0x4, kLeafSize, 0xAB)}));
  ASSERT_TRUE(few);
  EXPECT_EQ(few->asArray()->at(3).asData()->size(), kLeafSize);

  // Writers store equal keys and values once: these dictionaries share everything but their
  // index, and the document is far smaller than what it expands to.
  PlistArray items;
  for (int i = 0; i < 10000; ++i) {
    items.emplace_back(PlistDictionary{{"description", std::string(200, 's')}, {"index", i}});
  }
  const PlistValue value(std::move(items));
  const auto bytes = serializePropertyList(value, PlistFormat::kBinary);
  EXPECT_LT(bytes.size(), 10000u * 64) << "the keys are not shared";
  EXPECT_EQ(parsePropertyList(bytes), value);
}

// The writer lays documents out as libplist does, byte for byte: random values with shared
// leaves (and data, which is not shared), every width of integer, float and double reals, non-ASCII
// text and counts past 15, and documents large enough for 2- and 3-byte references and offsets.
TEST(PropertyList, WritesBinaryDocumentsAsLibplistDoes) {
  std::mt19937_64 random(21);
  PlistArray leaves;
  const auto add = [&leaves](const auto&... values) { (leaves.emplace_back(values), ...); };
  add(true, false, 0, 255, 256, 70000, int64_t{1} << 40, -2, std::numeric_limits<uint64_t>::max(),
      1.5, 0.1, -0.0, std::nan(""), 1e300, "", "abcdefghijklmn", "abcdefghijklmno",
      "é\xf0\x9f\x98\x80", date(std::chrono::year{2001} / 1 / 1, -500ms));
  // Data apart, as no two data objects are shared.
  std::uint32_t dataCount = 0;
  const auto randomValue = [&](auto& self, int depth) -> PlistValue {
    const auto pick = random() % 10;
    if (pick == 0) {
      PlistData bytes(random() % 16, 7);
      for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(dataCount >> (8 * i)));
      ++dataCount;
      return bytes;
    }
    if (depth > 3 || pick < 6) return leaves[random() % leaves.size()];
    const std::size_t count = random() % 20;
    if (pick < 8) {
      PlistArray array;
      for (std::size_t i = 0; i < count; ++i) array.push_back(self(self, depth + 1));
      return array;
    }
    PlistDictionary dictionary;
    for (std::size_t i = 0; i < count; ++i) {
      dictionary.emplace(std::to_string(random() % 30), self(self, depth + 1));
    }
    return dictionary;
  };
  std::vector<PlistValue> values;
  for (int i = 0; i < 300; ++i) values.push_back(randomValue(randomValue, 0));
  PlistArray many;
  for (int i = 0; i < 70000; ++i) many.emplace_back(i);
  values.push_back(std::move(many));
  values.push_back(PlistArray{std::string(70000, 'y'), 1});
  for (const PlistValue& value : values) {
    const PlistHandle tree = plistTreeFromValue(value);
    char* raw = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(tree.get(), &raw, &length);
    const std::unique_ptr<char, CFree<&plist_to_bin_free>> expected(raw);
    const std::vector<std::uint8_t> written = serializePropertyList(value, PlistFormat::kBinary);
    ASSERT_EQ(written, std::vector<std::uint8_t>(raw, raw + length));
  }
}

}  // namespace
}  // namespace orvex
