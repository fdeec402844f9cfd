#pragma once

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace tandor {

/// Owns a file descriptor and closes it.
class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  [[nodiscard]] int get() const noexcept { return descriptor_; }
  [[nodiscard]] bool isOpen() const noexcept { return descriptor_ >= 0; }
  [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }
  void reset() noexcept {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

/// Opens those of the standard descriptors that are closed. Before anything else is opened: what
/// got such a number would be written to as output, and closed by whoever redirects that. False
/// when one stays closed.
[[nodiscard]] inline bool openStandardDescriptors() noexcept {
  for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
    const bool isOpen = ::fcntl(standard, F_GETFD) >= 0;
    if (!isOpen && ::open("/dev/null", O_RDWR) != standard) return false;
  }
  return true;
}

}  // namespace tandor
