#include "platform/files/fd.h"

#include <unistd.h>

namespace vantor {

Fd::~Fd() {
  if (fd_ >= 0)
    ::close(fd_);
}

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

}  // namespace vantor
