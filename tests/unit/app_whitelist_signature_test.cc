#include "orvexd/network/app_whitelist_signature.h"

#include <gtest/gtest.h>

#include <numeric>

namespace orvex {
namespace {

using Bytes = std::vector<uint8_t>;

// The expected bytes below were worked out by hand from the layout: CRC-32 | version byte with
// the encoded flag in bit 7 | last version byte | length (2) | MD5[12..15] | payload. The MD5
// prefixes and CRCs are the published values of those functions over the bytes shown (computed
// once outside this code and written down).

// One byte 0xFF: one run gives 1 + 1 + 2 = 4 bytes, not below 1, so it goes as it is. The
// version "0a9b2c" ends in 9b 2c; 0x9b has bit 7 set, which the raw form clears: 0x1b.
TEST(AppWhitelistSignature, SendsASmallBitmapAsItIsWithTheFlagClear) {
  const AppBitmap bitmap = makeBitmap({0, 1, 2, 3, 4, 5, 6, 7});
  ASSERT_EQ(bitmap.length, 1u);
  const Bytes expected{0xE1, 0x83, 0x4A, 0xAF,  // CRC-32 of the bytes after it
                       0x1B, 0x2C,              // 0x9b with bit 7 cleared, 0x2c
                       0x00, 0x01,              // one byte of bitmap
                       0xA0, 0x57, 0x62, 0x95,  // MD5(ff) bytes 12-15
                       0xFF};
  EXPECT_EQ(makeSignatureBytes("0a9b2c", bitmap.view()), expected);
  EXPECT_EQ(makeSignature("0a9b2c", bitmap.view()), "4YNKrxssAAGgV2KV/w==");
  EXPECT_EQ(rle_expand(Bytes(expected.begin() + 8, expected.end()), false, 1), Bytes{0xFF});
}

// Indices 0..599: largest 599, ceil(599 / 8) = 75 bytes of 0xFF. Runs close at 256 bits: 256,
// 256, 88, stored as 255, 255, 87, all of set bits (values 111 then five zero bits: 0xE0).
// 3 + 1 + 2 = 6 < 75, so the run-length form goes, with bit 7 set on 0x12: 0x92.
TEST(AppWhitelistSignature, EncodesLongRunsInPiecesOf256Bits) {
  std::vector<uint32_t> indices(600);
  std::iota(indices.begin(), indices.end(), 0u);
  const AppBitmap bitmap = makeBitmap(indices);
  ASSERT_EQ(bitmap.length, 75u);
  const Bytes expected{0x27, 0xAA, 0x46, 0x23, 0x92, 0xCD, 0x00, 0x4B,  // CRC, 0x92 0xcd, 75
                       0xC6, 0x88, 0xA8, 0x23,                          // MD5(75 x ff)[12..15]
                       0x00, 0x03, 0xFF, 0xFF, 0x57, 0xE0};             // R=3, 255 255 87, 111
  EXPECT_EQ(makeSignatureBytes("12cd", bitmap.view()), expected);

  // The run-length form expands back to the bitmap; a count that disagrees with the length of
  // what follows, or runs that overrun the length, are refused.
  const Bytes payload(expected.begin() + 8, expected.end());
  EXPECT_EQ(rle_expand(payload, true, 75), Bytes(75, 0xFF));
  EXPECT_EQ(rle_expand(payload, true, 74), std::nullopt);
  Bytes wrongCount = payload;
  wrongCount[5] = 4;
  EXPECT_EQ(rle_expand(wrongCount, true, 75), std::nullopt);
}

// Indices 3 and 16: ceil(16 / 8) = 2 bytes. Index 3 is 0x80 >> 3 = 0x10 in byte 0; index 16
// falls in the spare byte 2, outside the two bytes the signature covers: 10 00.
TEST(AppWhitelistSignature, LargestIndexAMultipleOfEightLandsInTheSpareByte) {
  const AppBitmap bitmap = makeBitmap({3, 16});
  ASSERT_EQ(bitmap.length, 2u);
  EXPECT_EQ(bitmap.bytes, (Bytes{0x10, 0x00, 0x80}));
  const Bytes expected{0xBD, 0x39, 0xF7, 0x4A, 0x01, 0x02,
                       0x00, 0x02, 0x0C, 0x7B, 0x7C, 0xCF,  // MD5(10 00)[12..15]
                       0x10, 0x00};
  EXPECT_EQ(makeSignatureBytes("0102", bitmap.view()), expected);
  // Index 0 alone gives a bitmap of length 0, its bit in the spare byte only.
  EXPECT_EQ(makeBitmap({0}).length, 0u);
}

TEST(AppWhitelistSignature, RefusesBadVersionsAndBadWhitelists) {
  const Bytes bitmap{0xFF};
  EXPECT_EQ(makeSignature("abc", bitmap), std::nullopt);   // odd length
  EXPECT_EQ(makeSignature("ab", bitmap), std::nullopt);    // one byte only
  EXPECT_EQ(makeSignature("zz01", bitmap), std::nullopt);  // not hexadecimal

  const auto file = [](std::string compression, std::string encoding, std::string inner) {
    nlohmann::json outer{{"apps", inner}, {"compression", compression}, {"encoding", encoding}};
    return outer.dump();
  };
  const std::string inner =
      R"({"version":"0a0b","apps":{"org.a":[{"x":1},{"encoding_id":9}],"org.b":[{"encoding_id":-1}],)"
      R"("org.c":[{"encoding_id":2.0}],"org.d":[{"encoding_id":9999999}],"org.e":"no"}})";
  const auto whitelist = processWhitelist(file("RLE", "bitmap", inner));
  ASSERT_TRUE(whitelist);
  EXPECT_EQ(whitelist->version, "0a0b");
  EXPECT_EQ(whitelist->encodingIds,
            (std::map<std::string, uint32_t, std::less<>>{{"org.a", 9}, {"org.c", 2}}));
  EXPECT_EQ(whitelist->skippedEntries, 3u);
  EXPECT_EQ(whitelistedIndices(*whitelist, {"org.a", "org.x", "org.c", "org.a"}),
            (std::vector<uint32_t>{2, 9}));

  std::string problem;
  EXPECT_FALSE(processWhitelist(file("gzip", "bitmap", inner), &problem));
  EXPECT_EQ(problem, "the whitelist's compression is not \"RLE\"");
  EXPECT_FALSE(processWhitelist(file("RLE", "list", inner)));
  EXPECT_FALSE(processWhitelist(file("RLE", "bitmap", R"({"apps":{}})")));
  EXPECT_FALSE(processWhitelist(file("RLE", "bitmap", std::string(600, '['))));
  EXPECT_FALSE(processWhitelist(R"({"apps":{},"compression":"RLE","encoding":"bitmap"})"));
}

}  // namespace
}  // namespace orvex
