// Throughput of upload bodies: session-like JSON (a few MiB of search records) written through
// CompressedOutputStream (raw deflate, SHA-512, appended to a file) in the 1 KiB pieces the
// flusher writes, beside zlib's raw deflate alone on the same text into memory. Each figure is
// the best of several rounds; the ratio is the stream's time over zlib's.
//
// Usage: orvex_bench_compressed_upload [rounds]
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/search_session_records.h"
#include "orvexd/feedback/compressed_output_stream.h"
#include "orvexd/model/orvex_feedback.h"

namespace {

using Clock = std::chrono::steady_clock;

// An upload object of `queries` searches, as a session's JSON text.
nlohmann::json sessionJson(int queries) {
  using namespace orvex;
  nlohmann::json records = nlohmann::json::array();
  for (int query = 0; query < queries; ++query) {
    auto start = bench::searchStart(query);
    for (const FeedbackRecordPtr& record :
         {FeedbackRecordPtr(start), FeedbackRecordPtr(bench::networkRequest(*start, query)),
          FeedbackRecordPtr(bench::visibleResults(query))}) {
      records.push_back(OrvexFeedback::initWithFeedback(record, query, "6F1A3C2E", "news/1.0")
                            .dictionary()
                            .toJson());
    }
  }
  return {{"fb", std::move(records)}, {"agent", "news/1.0"}, {"base_time", 1767225600}};
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// The stream writing `text` in 1 KiB pieces into `file`; returns the compressed size.
size_t throughStream(const std::string& text, const std::filesystem::path& file) {
  std::filesystem::remove(file);
  orvex::CompressedOutputStream stream(std::make_unique<orvex::FileOutputStream>(file));
  stream.open();
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  for (size_t at = 0; at < text.size(); at += orvex::kJsonPieceSize) {
    stream.write(bytes + at, std::min(orvex::kJsonPieceSize, text.size() - at));
  }
  stream.close();
  if (stream.streamStatus() != orvex::OutputStream::Status::kAtEnd) std::exit(1);
  return std::filesystem::file_size(file);
}

// zlib alone: raw deflate at the stream's settings, into memory.
size_t deflateAlone(const std::string& text, std::vector<uint8_t>& out) {
  z_stream z{};
  if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    std::exit(1);
  }
  out.resize(deflateBound(&z, text.size()));
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  if (deflate(&z, Z_FINISH) != Z_STREAM_END) std::exit(1);
  const size_t size = z.total_out;
  deflateEnd(&z);
  return size;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string text = sessionJson(1500).dump();
  const auto file =
      std::filesystem::temp_directory_path() / ("orvex_bench_upload_" + std::to_string(::getpid()));
  std::vector<uint8_t> out;
  double streamBest = 1e9, zlibBest = 1e9;
  size_t streamSize = 0, zlibSize = 0;
  for (int round = 0; round < rounds; ++round) {
    auto begun = Clock::now();
    streamSize = throughStream(text, file);
    streamBest = std::min(streamBest, seconds(Clock::now() - begun));
    begun = Clock::now();
    zlibSize = deflateAlone(text, out);
    zlibBest = std::min(zlibBest, seconds(Clock::now() - begun));
  }
  std::filesystem::remove(file);
  const double mib = static_cast<double>(text.size()) / (1024.0 * 1024.0);
  std::printf("session JSON: %.2f MiB, best of %d rounds\n", mib, rounds);
  std::printf("CompressedOutputStream (deflate + SHA-512 + file): %7.1f MiB/s (%zu bytes)\n",
              mib / streamBest, streamSize);
  std::printf("zlib raw deflate alone (memory):                  %7.1f MiB/s (%zu bytes)\n",
              mib / zlibBest, zlibSize);
  std::printf("ratio (stream time / zlib time): %.3f\n", streamBest / zlibBest);
  return 0;
}
