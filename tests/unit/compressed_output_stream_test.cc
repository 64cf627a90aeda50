#include "orvexd/feedback/compressed_output_stream.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/support/upload_body.h"

namespace orvex {
namespace {

std::string bodyOf(CompressedOutputStream& stream) {
  const auto& data = dynamic_cast<MemoryOutputStream&>(stream.outputStream()).data();
  return testing::inflateRaw(std::string(data.begin(), data.end()));
}

const uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

TEST(CompressedOutputStream, ShortWritesAreDigestedOnceAndInflateBack) {
  CompressedOutputStream stream;
  stream.open();
  EXPECT_EQ(stream.write(bytes(""), 0), 0) << "an empty write is no failure";
  EXPECT_EQ(stream.write(bytes("{\"fb\":[]}"), 9), 9);
  stream.close();
  EXPECT_EQ(stream.streamStatus(), OutputStream::Status::kAtEnd);
  EXPECT_EQ(stream.dataDigestForStream(), testing::sha512Hex("{\"fb\":[]}"));
  EXPECT_EQ(bodyOf(stream), "{\"fb\":[]}");
  EXPECT_EQ(stream.write(bytes("x"), 1), -1) << "nothing is taken once finished";

  // (A session written as it is serialised, its digest that of its text: the end-to-end upload
  // test, whose back-end checks each body's digest.)
  CompressedOutputStream invalid;
  EXPECT_TRUE(writeJsonToStream(nlohmann::json{{"input", "\xff\xfe"}}, invalid)) << "not UTF-8";
}

// A write whose compressed output overflows the buffer takes several compressor passes, and
// each pass digests (and counts) the whole input again.
TEST(CompressedOutputStream, AWriteOfManyPassesIsDigestedOncePerPass) {
  std::string input;
  uint32_t state = 12345;
  for (int i = 0; i < 256 * 1024; ++i) {
    state = state * 1103515245 + 12345;
    input.push_back(static_cast<char>('a' + (state >> 16) % 16));
  }
  CompressedOutputStream stream;
  stream.open();
  const int64_t count = stream.write(bytes(input), input.size());
  stream.close();
  EXPECT_EQ(bodyOf(stream), input);
  int passes = 0;
  std::string repeated;
  for (int k = 1; k <= 100 && passes == 0; ++k) {
    repeated += input;
    if (testing::sha512Hex(repeated) == stream.dataDigestForStream()) passes = k;
  }
  ASSERT_GT(passes, 1) << "the digest is the input's, counted once per pass";
  // The last pass counts the whole input; each earlier one what it had consumed by then.
  EXPECT_GT(count, static_cast<int64_t>(input.size()));
  EXPECT_LE(count, static_cast<int64_t>(input.size()) * passes);
}

}  // namespace
}  // namespace orvex
