#include "common/event.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "common/poll_until.h"

namespace vexo::tools {

event::event() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void event::raise() {
  // Adds 1 to the counter. It fails only when the counter is at its maximum, so it is raised then.
  [[maybe_unused]] const int result = eventfd_write(fd(), 1);
}

bool event::raised() const { return wait_for(*this, *this, std::chrono::milliseconds(0)); }

bool event::take() {
  eventfd_t count = 0;
  return eventfd_read(fd(), &count) == 0;
}

bool wait_for(const event& one, const event& other, std::chrono::steady_clock::duration time) {
  pollfd watched[] = {{one.fd(), POLLIN, 0}, {other.fd(), POLLIN, 0}};
  return poll_until(watched, std::chrono::steady_clock::now() + time) > 0;
}

}  // namespace vexo::tools
