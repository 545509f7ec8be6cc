#include "common/unique_fd.h"

#include <unistd.h>

#include <utility>

namespace vexo::tools {

unique_fd& unique_fd::operator=(unique_fd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int unique_fd::release() { return std::exchange(fd_, -1); }

void unique_fd::reset() {
  if (fd_ >= 0) close(release());
}

}  // namespace vexo::tools
