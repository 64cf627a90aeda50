// A whole file mapped into memory, read-only: the bytes of a cached image, handed from the URL
// cache to the reply that carries them without ever being copied into the heap.
//
// The mapping is private and made from offset 0 over the file's length at the time of mapping.
// It stays valid after the file is renamed or unlinked; the memory is unmapped when the last
// holder lets go. Immutable once made, so any thread may read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace orvex {

class MappedFile {
 public:
  // Takes over a mapping of `size` bytes at `address` (made with mmap).
  MappedFile(const void* address, size_t size) : address_(address), size_(size) {}
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::span<const uint8_t> bytes() const { return {static_cast<const uint8_t*>(address_), size_}; }
  size_t size() const { return size_; }

 private:
  const void* address_;
  size_t size_;
};

// Maps the whole file open as `fd`, its length found by seeking to its end. None when that
// fails, with errno in `error` when asked for: an empty file cannot be mapped (EINVAL).
std::shared_ptr<const MappedFile> mmapFileHandle(int fd, int* error = nullptr);

}  // namespace orvex
