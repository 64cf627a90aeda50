// The output streams upload bodies are written through.
//
// CompressedOutputStream compresses what it is given with raw deflate (no zlib header or
// trailer) through a 4096-byte buffer into an inner stream, and computes a SHA-512 digest that
// the upload carries. The digest is updated with the whole input at the start of every
// compressor pass, so an input that needs several passes (a large write, or one made when the
// compressor has a block to emit) counts several times, in the digest and in the count write()
// returns. Writers keep ordinary bodies to one pass a write by writing small pieces
// (writeJsonToStream()), so that their digest is the SHA-512 of the JSON; a receiver checks a
// larger body with uploadDigestOfJson(), which replays the writes.
//
// NullStream only counts what it is given (encoded sizes are measured with it);
// MemoryOutputStream keeps it; FileOutputStream appends it to a file.
//
// Streams are used by one thread at a time.
#pragma once

#include <openssl/evp.h>
#include <zlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_error.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {

class OutputStream {
 public:
  enum class Status { kNotOpen, kOpen, kAtEnd, kClosed, kError };

  virtual ~OutputStream() = default;
  virtual void open() = 0;
  virtual void close() = 0;
  // Writes `length` bytes; returns the count taken, or -1 on failure.
  virtual int64_t write(const uint8_t* data, size_t length) = 0;
  virtual bool hasSpaceAvailable() const { return true; }
  virtual Status streamStatus() const = 0;
  virtual std::optional<OrvexError> streamError() const { return std::nullopt; }
};

class NullStream final : public OutputStream {
 public:
  void open() override {}
  void close() override {}
  int64_t write(const uint8_t*, size_t length) override {
    bytesWritten_ += length;
    return static_cast<int64_t>(length);
  }
  Status streamStatus() const override { return Status::kOpen; }
  uint64_t bytesWritten() const { return bytesWritten_; }

 private:
  uint64_t bytesWritten_ = 0;
};

class MemoryOutputStream final : public OutputStream {
 public:
  void open() override { status_ = Status::kOpen; }
  void close() override { status_ = Status::kClosed; }
  int64_t write(const uint8_t* data, size_t length) override;
  Status streamStatus() const override { return status_; }
  const std::vector<uint8_t>& data() const { return data_; }

 private:
  Status status_ = Status::kNotOpen;
  std::vector<uint8_t> data_;
};

// Appends to the file at `path`, made with mode 0600 when missing; never through a symbolic
// link.
class FileOutputStream final : public OutputStream {
 public:
  explicit FileOutputStream(std::filesystem::path path) : path_(std::move(path)) {}
  void open() override;
  void close() override;
  int64_t write(const uint8_t* data, size_t length) override;
  Status streamStatus() const override { return status_; }
  std::optional<OrvexError> streamError() const override;
  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_;
  UniqueFd fd_;
  Status status_ = Status::kNotOpen;
  int errno_ = 0;
};

class CompressedOutputStream final : public OutputStream {
 public:
  static constexpr size_t kBufferSize = 4096;

  // Into a MemoryOutputStream.
  CompressedOutputStream();
  explicit CompressedOutputStream(std::unique_ptr<OutputStream> outputStream);
  ~CompressedOutputStream() override;
  // The compressor's state must not move.
  CompressedOutputStream(const CompressedOutputStream&) = delete;
  CompressedOutputStream& operator=(const CompressedOutputStream&) = delete;

  void open() override { outputStream_->open(); }
  // Flushes the compressor, finishes the digest and closes the inner stream.
  void close() override;
  int64_t write(const uint8_t* data, size_t length) override;
  Status streamStatus() const override;
  std::optional<OrvexError> streamError() const override;

  // The SHA-512 digest as 128 lower-case hexadecimal characters; complete after close().
  std::string dataDigestForStream() const;
  OutputStream& outputStream() { return *outputStream_; }

 private:
  enum : int { kFailed = -1, kRunning = 0, kFinished = 1 };
  // Writes what the compressor put in the buffer; false when the inner stream failed.
  bool drainBuffer();

  std::unique_ptr<OutputStream> outputStream_;
  z_stream compressor_{};
  bool compressorLive_ = false;
  std::array<uint8_t, kBufferSize> buffer_{};
  CHandle<EVP_MD_CTX, &EVP_MD_CTX_free> digestContext_;
  std::array<uint8_t, 64> digest_{};
  int status_ = kFailed;
};

// Writes `value` as compact JSON into `stream` while it is serialised, in pieces of at most
// kJsonPieceSize bytes. Returns why it failed (text that is not UTF-8, a failed write), or
// nothing.
inline constexpr size_t kJsonPieceSize = 1024;
std::optional<std::string> writeJsonToStream(const nlohmann::json& value, OutputStream& stream);

// The digest an upload of the compact JSON text `json` carries: the text written through a
// CompressedOutputStream in the pieces writeJsonToStream() makes of it. The SHA-512 of `json`
// itself unless some piece took several compressor passes.
std::string uploadDigestOfJson(std::string_view json);

}  // namespace orvex
