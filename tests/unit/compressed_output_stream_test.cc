#include "orvexd/feedback/compressed_output_stream.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/support/upload_body.h"

namespace orvex {
namespace {

std::string bodyOf(CompressedOutputStream& stream) {
  const auto& data = dynamic_cast<MemoryOutputStream&>(stream.outputStream()).data();
  return testing::inflateRaw(std::span(data));
}

const uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

TEST(CompressedOutputStream, ShortWritesAreDigestedOnceAndInflateBack) {
  CompressedOutputStream stream;
  stream.open();
  EXPECT_EQ(stream.write(bytes(""), 0), 0) << "an empty write is no failure";
  EXPECT_EQ(stream.streamStatus(), OutputStream::Status::kOpen);
  EXPECT_EQ(stream.write(bytes("{\"fb\":[]}"), 9), 9);
  stream.close();
  EXPECT_EQ(stream.streamStatus(), OutputStream::Status::kAtEnd);
  EXPECT_EQ(stream.dataDigestForStream(), testing::sha512Hex("{\"fb\":[]}"));
  EXPECT_EQ(bodyOf(stream), "{\"fb\":[]}");
  EXPECT_EQ(stream.write(bytes("x"), 1), -1) << "nothing is taken once finished";

  // A session-sized document written as it is serialised: its digest is that of its text.
  nlohmann::json session = {{"agent", "news/1.0"}, {"fb", nlohmann::json::array()}};
  for (int i = 0; i < 300; ++i) session["fb"].push_back({{"input", "query " + std::to_string(i)}});
  CompressedOutputStream json;
  json.open();
  EXPECT_EQ(writeJsonToStream(session, json), std::nullopt);
  json.close();
  EXPECT_EQ(json.dataDigestForStream(), testing::sha512Hex(session.dump()));
  EXPECT_EQ(bodyOf(json), session.dump());

  CompressedOutputStream invalid;
  invalid.open();
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

  CHandle<EVP_MD_CTX, &EVP_MD_CTX_free> running(EVP_MD_CTX_new());
  EVP_DigestInit_ex(running.get(), EVP_sha512(), nullptr);
  int passes = 0;
  for (int k = 1; k <= 200 && passes == 0; ++k) {
    EVP_DigestUpdate(running.get(), input.data(), input.size());
    CHandle<EVP_MD_CTX, &EVP_MD_CTX_free> copy(EVP_MD_CTX_new());
    EVP_MD_CTX_copy_ex(copy.get(), running.get());
    unsigned char digest[64];
    EVP_DigestFinal_ex(copy.get(), digest, nullptr);
    std::string hex;
    for (unsigned char byte : digest) hex += fmt::format("{:02x}", byte);
    if (hex == stream.dataDigestForStream()) passes = k;
  }
  ASSERT_GT(passes, 1) << "the digest is the input's, counted once per pass";
  // The last pass counts the whole input; each earlier one what it had consumed by then.
  EXPECT_GT(count, static_cast<int64_t>(input.size()));
  EXPECT_LE(count, static_cast<int64_t>(input.size()) * passes);
}

TEST(NullStream, CountsWhatItIsGiven) {
  NullStream counter;
  EXPECT_EQ(counter.write(bytes("abc"), 3), 3);
  EXPECT_EQ(writeJsonToStream(nlohmann::json{{"a", 1}}, counter), std::nullopt);
  EXPECT_EQ(counter.bytesWritten(), 3u + 7u);
}

}  // namespace
}  // namespace orvex
