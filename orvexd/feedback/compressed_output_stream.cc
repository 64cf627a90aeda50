#include "orvexd/feedback/compressed_output_stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "orvexd/base/orvex_names.h"

namespace orvex {

int64_t MemoryOutputStream::write(const uint8_t* data, size_t length) {
  if (status_ != Status::kOpen) return -1;
  data_.insert(data_.end(), data, data + length);
  return static_cast<int64_t>(length);
}

void FileOutputStream::open() {
  if (status_ != Status::kNotOpen) return;
  fd_ =
      UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd_) {
    errno_ = errno;
    status_ = Status::kError;
    return;
  }
  status_ = Status::kOpen;
}

void FileOutputStream::close() {
  if (status_ == Status::kOpen) status_ = Status::kClosed;
  // A delayed write error shows only here.
  if (const std::error_code error = fd_.close(); error && status_ != Status::kError) {
    errno_ = error.value();
    status_ = Status::kError;
  }
}

int64_t FileOutputStream::write(const uint8_t* data, size_t length) {
  if (status_ != Status::kOpen) return -1;
  size_t done = 0;
  while (done < length) {
    const ssize_t written = ::write(fd_.get(), data + done, length - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      errno_ = errno;
      status_ = Status::kError;
      return -1;
    }
    done += static_cast<size_t>(written);
  }
  return static_cast<int64_t>(length);
}

std::optional<OrvexError> FileOutputStream::streamError() const {
  if (status_ != Status::kError) return std::nullopt;
  return OrvexError(kPOSIXErrorDomain, errno_, std::generic_category().message(errno_));
}

CompressedOutputStream::CompressedOutputStream()
    : CompressedOutputStream(std::make_unique<MemoryOutputStream>()) {}

CompressedOutputStream::CompressedOutputStream(std::unique_ptr<OutputStream> outputStream)
    : outputStream_(std::move(outputStream)), digestContext_(EVP_MD_CTX_new()) {
  // Raw deflate: negative window bits leave out the zlib header and trailer.
  compressorLive_ = deflateInit2(&compressor_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8,
                                 Z_DEFAULT_STRATEGY) == Z_OK;
  const bool digesting =
      digestContext_ && EVP_DigestInit_ex(digestContext_.get(), EVP_sha512(), nullptr) == 1;
  status_ = compressorLive_ && digesting ? kRunning : kFailed;
}

CompressedOutputStream::~CompressedOutputStream() {
  if (compressorLive_) deflateEnd(&compressor_);
}

bool CompressedOutputStream::drainBuffer() {
  const size_t produced = kBufferSize - compressor_.avail_out;
  if (produced > 0 && outputStream_->write(buffer_.data(), produced) < 0) return false;
  compressor_.next_out = buffer_.data();
  compressor_.avail_out = kBufferSize;
  return true;
}

int64_t CompressedOutputStream::write(const uint8_t* data, size_t length) {
  if (status_ != kRunning) return -1;
  // zlib counts input in 32 bits; the flusher's pieces are far smaller.
  if (length > UINT32_MAX) return -1;
  int64_t count = 0;
  compressor_.next_in = const_cast<Bytef*>(data);
  compressor_.avail_in = static_cast<uInt>(length);
  do {
    // Every pass digests the whole input again (see the header).
    EVP_DigestUpdate(digestContext_.get(), data, length);
    compressor_.next_out = buffer_.data();
    compressor_.avail_out = kBufferSize;
    const int result = deflate(&compressor_, Z_NO_FLUSH);
    // Z_BUF_ERROR only says that no progress was possible (an empty write): not a failure.
    if (result != Z_OK && result != Z_BUF_ERROR) {
      status_ = kFailed;
      break;
    }
    count += static_cast<int64_t>(length - compressor_.avail_in);
    if (!drainBuffer()) {
      status_ = kFailed;
      break;
    }
  } while (compressor_.avail_in > 0);
  compressor_.next_in = nullptr;
  compressor_.avail_in = 0;
  return status_ == kFailed ? -1 : count;
}

void CompressedOutputStream::close() {
  if (compressorLive_) {
    int result = Z_OK;
    do {
      compressor_.next_out = buffer_.data();
      compressor_.avail_out = kBufferSize;
      result = deflate(&compressor_, Z_FINISH);
      if (status_ != kFailed && !drainBuffer()) result = Z_STREAM_ERROR;
    } while (result == Z_OK);
    if (status_ != kFailed) status_ = result == Z_STREAM_END ? kFinished : kFailed;
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(digestContext_.get(), digest_.data(), &size) != 1) status_ = kFailed;
    deflateEnd(&compressor_);
    compressorLive_ = false;
  }
  outputStream_->close();
  if (outputStream_->streamStatus() == Status::kError) status_ = kFailed;
}

OutputStream::Status CompressedOutputStream::streamStatus() const {
  if (status_ == kFailed) return Status::kError;
  if (status_ == kRunning) return Status::kOpen;
  return status_ == kFinished ? Status::kAtEnd : Status::kNotOpen;
}

std::optional<OrvexError> CompressedOutputStream::streamError() const {
  if (status_ != kFailed) return std::nullopt;
  return OrvexError(kPOSIXErrorDomain, 0, "compressed stream failed");
}

std::string CompressedOutputStream::dataDigestForStream() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(digest_.size() * 2);
  for (const uint8_t byte : digest_) {
    text.push_back(kHex[byte >> 4]);
    text.push_back(kHex[byte & 0xf]);
  }
  return text;
}

namespace {

// Collects the serialiser's output and hands it to the stream in pieces of kJsonPieceSize.
class PieceWriter final : public nlohmann::detail::output_adapter_protocol<char> {
 public:
  explicit PieceWriter(OutputStream& stream) : stream_(stream) {}

  void write_character(char c) override {
    if (used_ == piece_.size()) flush();
    piece_[used_++] = c;
  }
  void write_characters(const char* s, std::size_t length) override {
    while (length > 0) {
      if (used_ == piece_.size()) flush();
      const size_t taken = std::min(length, piece_.size() - used_);
      std::memcpy(piece_.data() + used_, s, taken);
      used_ += taken;
      s += taken;
      length -= taken;
    }
  }
  void flush() {
    if (used_ > 0 && !failed_) {
      failed_ = stream_.write(reinterpret_cast<const uint8_t*>(piece_.data()), used_) < 0;
    }
    used_ = 0;
  }
  bool failed() const { return failed_; }

 private:
  OutputStream& stream_;
  std::array<char, kJsonPieceSize> piece_{};
  size_t used_ = 0;
  bool failed_ = false;
};

}  // namespace

std::optional<std::string> writeJsonToStream(const nlohmann::json& value, OutputStream& stream) {
  auto writer = std::make_shared<PieceWriter>(stream);
  try {
    nlohmann::detail::serializer<nlohmann::json> serializer(writer, ' ');
    serializer.dump(value, false, false, 0);
  } catch (const nlohmann::json::exception& exception) {
    return std::string(exception.what());
  }
  writer->flush();
  if (writer->failed()) return std::string("the stream refused a write");
  return std::nullopt;
}

std::string uploadDigestOfJson(std::string_view json) {
  CompressedOutputStream stream;
  stream.open();
  for (size_t at = 0; at < json.size(); at += kJsonPieceSize) {
    const std::string_view piece = json.substr(at, kJsonPieceSize);
    (void)stream.write(reinterpret_cast<const uint8_t*>(piece.data()), piece.size());
  }
  stream.close();
  return stream.dataDigestForStream();
}

}  // namespace orvex
