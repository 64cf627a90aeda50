#include "tools/orvex-backend/feedback_intake.h"

#include <zlib.h>

#include <array>
#include <optional>

#include "orvexd/base/json_limits.h"
#include "orvexd/feedback/compressed_output_stream.h"
#include "tools/orvex-backend/hex_digest.h"

namespace orvex::backend {

namespace {

constexpr const char* kDigestHeader = "X-Zelmor-Digest";

// One raw deflate stream inflated whole. zlib keeps pointers into the z_stream, so the object
// holding it never moves.
class RawInflater {
 public:
  RawInflater() : ready_(inflateInit2(&stream_, -MAX_WBITS) == Z_OK) {}
  ~RawInflater() {
    if (ready_) inflateEnd(&stream_);
  }
  RawInflater(const RawInflater&) = delete;
  RawInflater& operator=(const RawInflater&) = delete;

  // The inflated bytes, or nothing with `problem` saying why: `data` is not exactly one complete
  // raw deflate stream, or it inflates to more than `limit` bytes.
  std::optional<std::string> inflate(std::string_view data, size_t limit, std::string& problem) {
    if (!ready_) {
      problem = "the server cannot inflate (zlib would not start)";
      return std::nullopt;
    }
    std::string inflated;
    std::array<unsigned char, 16384> chunk;
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream_.avail_in = static_cast<uInt>(data.size());  // bodies are far below 4 GiB
    int result = Z_OK;
    while (result != Z_STREAM_END) {
      stream_.next_out = chunk.data();
      stream_.avail_out = static_cast<uInt>(chunk.size());
      result = ::inflate(&stream_, Z_NO_FLUSH);
      if (result == Z_BUF_ERROR && stream_.avail_in == 0) {
        problem = "the body ends before its raw deflate stream does";
        return std::nullopt;
      }
      if (result != Z_OK && result != Z_STREAM_END) {
        problem = "the body is not raw deflate (";
        problem.append(stream_.msg != nullptr ? stream_.msg : "zlib error").append(")");
        return std::nullopt;
      }
      inflated.append(reinterpret_cast<const char*>(chunk.data()),
                      chunk.size() - stream_.avail_out);
      if (inflated.size() > limit) {
        problem = "the body inflates to more than " + std::to_string(limit) + " bytes";
        return std::nullopt;
      }
    }
    if (stream_.avail_in != 0) {
      problem = "the body goes on after its raw deflate stream";
      return std::nullopt;
    }
    return inflated;
  }

 private:
  z_stream stream_{};
  bool ready_;
};

EndpointReply refuse(std::string reason) {
  return {400, "text/plain", std::move(reason) + "\n", {}};
}

}  // namespace

EndpointReply FeedbackIntake::accept(const std::string& endpoint,
                                     const EndpointRequest& request) const {
  const auto digest = request.header(kDigestHeader);
  if (!digest) return refuse(std::string("no ") + kDigestHeader + " header");
  std::string problem;
  const auto json = RawInflater().inflate(request.body, kMaxInflatedBytes, problem);
  if (!json) return refuse(problem);
  const std::string actual = sha512Hex(*json);
  // A body the daemon wrote in pieces that took several compressor passes carries the digest of
  // those passes, which replaying its writes gives.
  if (*digest != actual && *digest != uploadDigestOfJson(*json)) {
    return refuse(std::string(kDigestHeader) + " is not the SHA-512 of the inflated body, " +
                  actual);
  }
  if (parseJsonWithinLimits(*json, {.maxBytes = kMaxInflatedBytes}, &problem).is_discarded()) {
    return refuse("the inflated body " + problem);
  }
  const int64_t id =
      store_->add({.endpoint = endpoint,
                   .path = request.path,
                   .query = request.query,
                   .digest = *digest,
                   .contentEncoding = request.header("Content-Encoding").value_or(""),
                   .body = *json});
  const nlohmann::ordered_json answer = {{"status", "OK"}, {"id", id}};
  return {200, "application/json", answer.dump() + "\n", {}};
}

}  // namespace orvex::backend
