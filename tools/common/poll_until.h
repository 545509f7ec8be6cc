#ifndef TOOLS_COMMON_POLL_UNTIL_H_
#define TOOLS_COMMON_POLL_UNTIL_H_

#include <poll.h>

#include <chrono>
#include <span>

namespace vexo::tools {

// Blocks until one of `watched` has something to say, or until `deadline`, which may lie in the
// past or be time_point::max(). How many have; their `revents` say what. Goes on after a signal and
// when the kernel is short of memory; milliseconds are rounded up, so that no caller spins through
// the last one.
int poll_until(std::span<pollfd> watched, std::chrono::steady_clock::time_point deadline);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_POLL_UNTIL_H_
