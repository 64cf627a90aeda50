// Upload bodies as a tool reads them: raw deflate, inflated within a bound.
#include <gtest/gtest.h>
#include <zlib.h>

#include "orvexd/client/orvex_client.h"

namespace orvex {
namespace {

std::vector<uint8_t> rawDeflate(const std::string& text) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY),
            Z_OK);
  std::vector<uint8_t> out(deflateBound(&stream, text.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

TEST(InflateUploadBodyTest, InflatesRawDeflateAndRefusesWhatIsCutOffForeignOrTooLarge) {
  // Larger than one inflate buffer, so that the output is put together from several.
  std::string json = R"({"events": [)";
  for (int i = 0; i < 20000; ++i) json.append(R"({"input": "w)" + std::to_string(i) + R"("},)");
  json.append("{}]}");
  const auto body = rawDeflate(json);
  EXPECT_EQ(inflateUploadBody(body), json);

  std::string error;
  EXPECT_FALSE(inflateUploadBody(body, json.size() - 1, &error));
  EXPECT_NE(error.find("inflates past"), std::string::npos) << error;
  const std::vector<uint8_t> cut(body.begin(), body.begin() + static_cast<long>(body.size() / 2));
  EXPECT_FALSE(inflateUploadBody(cut, kMaxInflatedUploadBody, &error));
  EXPECT_NE(error.find("ends inside"), std::string::npos) << error;
  // A zlib stream (with its header) is not what the daemon sends.
  std::vector<uint8_t> wrapped(compressBound(json.size()));
  uLongf size = wrapped.size();
  ASSERT_EQ(
      compress(wrapped.data(), &size, reinterpret_cast<const Bytef*>(json.data()), json.size()),
      Z_OK);
  wrapped.resize(size);
  EXPECT_FALSE(inflateUploadBody(wrapped));
}

}  // namespace
}  // namespace orvex
