// Move-only owner of one file descriptor, -1 when empty. Closes a descriptor that is not negative
// when destroyed or replaced; a moved-from object holds -1. A plain value: one thread at a time.
#pragma once

namespace tavrinCommon {

class SafeFileDescriptor {
 public:
  SafeFileDescriptor() = default;
  explicit SafeFileDescriptor(int fd_) : fd(fd_) {}
  ~SafeFileDescriptor();
  SafeFileDescriptor(SafeFileDescriptor&& other) noexcept : fd(other.release()) {}
  SafeFileDescriptor& operator=(SafeFileDescriptor&& other) noexcept;
  SafeFileDescriptor(const SafeFileDescriptor&) = delete;
  SafeFileDescriptor& operator=(const SafeFileDescriptor&) = delete;

  int get() const { return fd; }
  bool valid() const { return fd >= 0; }
  // Gives the descriptor up without closing it; the object becomes -1.
  int release() {
    int old = fd;
    fd = -1;
    return old;
  }
  // Closes the held descriptor (if any) and takes `fd_`.
  void reset(int fd_ = -1);

 private:
  int fd = -1;
};

}  // namespace tavrinCommon
