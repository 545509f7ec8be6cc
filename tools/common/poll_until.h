#ifndef TOOLS_COMMON_POLL_UNTIL_H_
#define TOOLS_COMMON_POLL_UNTIL_H_

#include <poll.h>

#include <chrono>
#include <span>

namespace vexo::tools {

// poll(2) with a deadline, which may be in the past or time_point::max(). Returns the number of
// descriptors with events, 0 at the deadline. Goes on after a signal and when the kernel is short
// of memory; milliseconds are rounded up, so that no caller spins through the last one.
int poll_until(std::span<pollfd> watched, std::chrono::steady_clock::time_point deadline);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_POLL_UNTIL_H_
