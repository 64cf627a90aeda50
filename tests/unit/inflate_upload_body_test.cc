// Upload bodies as a tool reads them: raw deflate, inflated within a bound.
#include <gtest/gtest.h>

#include "orvexd/client/orvex_client.h"
#include "tests/support/upload_body.h"

namespace orvex {
namespace {

std::vector<uint8_t> bytesOf(const std::string& text) {
  return std::vector<uint8_t>(text.begin(), text.end());
}

TEST(InflateUploadBodyTest, InflatesRawDeflateAndRefusesWhatIsCutOffForeignOrTooLarge) {
  // Larger than one inflate buffer, so that the output is put together from several.
  std::string json = R"({"events": [)";
  for (int i = 0; i < 20000; ++i) json.append(R"({"input": "w)" + std::to_string(i) + R"("},)");
  json.append("{}]}");
  const auto body = bytesOf(testing::rawDeflate(json));
  EXPECT_EQ(inflateUploadBody(body), json);

  std::string error;
  EXPECT_FALSE(inflateUploadBody(body, json.size() - 1, &error));
  EXPECT_NE(error.find("inflates past"), std::string::npos) << error;
  const std::vector<uint8_t> cut(body.begin(), body.begin() + static_cast<long>(body.size() / 2));
  EXPECT_FALSE(inflateUploadBody(cut, kMaxInflatedUploadBody, &error));
  EXPECT_NE(error.find("ends inside"), std::string::npos) << error;
  EXPECT_FALSE(inflateUploadBody(bytesOf(testing::zlibWrapped(json)))) << "not what is sent";
}

}  // namespace
}  // namespace orvex
