#ifndef TOOLS_PLUGIN_GUARD_DAEMON_SOCKETS_H_
#define TOOLS_PLUGIN_GUARD_DAEMON_SOCKETS_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace vexo::tools {

// What one process does with a TCP port. Several processes can listen on the same port, and a
// connection does not tell which of them it leads to.
struct port_use {
  bool listens = false;
  bool has_waiting = false;   // its listening socket has connections that it has not accepted
  bool has_accepted = false;  // it holds the other end of the connection from port `from`
};

// For a connection from 127.0.0.1, port `from`, to `port`. Reads the kernel's table of all
// connections. Empty when the process cannot be examined: it has ended, or is another user's.
std::optional<port_use> port_use_of(pid_t pid, std::uint16_t port, std::uint16_t from);

// Whether the process is in the same network namespace as this one; true when that cannot be seen.
bool shares_network(pid_t pid);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_DAEMON_SOCKETS_H_
