#include "tavrincommon/common/process/SafeFileDescriptor.h"

#include <unistd.h>

namespace tavrinCommon {

SafeFileDescriptor::~SafeFileDescriptor() { reset(); }

SafeFileDescriptor& SafeFileDescriptor::operator=(SafeFileDescriptor&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

void SafeFileDescriptor::reset(int fd_) {
  // close() is not retried on EINTR: on Linux the descriptor is released either way.
  if (fd >= 0) ::close(fd);
  fd = fd_;
}

}  // namespace tavrinCommon
