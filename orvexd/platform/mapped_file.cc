#include "orvexd/platform/mapped_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace orvex {

MappedFile::~MappedFile() { ::munmap(const_cast<void*>(address_), size_); }

std::shared_ptr<const MappedFile> mmapFileHandle(int fd, int* error) {
  const auto fail = [error](int code) -> std::shared_ptr<const MappedFile> {
    if (error != nullptr) *error = code;
    return nullptr;
  };
  const off_t length = ::lseek(fd, 0, SEEK_END);
  if (length < 0) return fail(errno);
  // mmap refuses a length of 0 with EINVAL, which is what an empty file reports too.
  if (length == 0) return fail(EINVAL);
  void* address = ::mmap(nullptr, static_cast<size_t>(length), PROT_READ, MAP_PRIVATE, fd, 0);
  if (address == MAP_FAILED) return fail(errno);
  return std::make_shared<const MappedFile>(address, static_cast<size_t>(length));
}

}  // namespace orvex
