#ifndef TOOLS_COMMON_ENDPOINT_H_
#define TOOLS_COMMON_ENDPOINT_H_

#include <cstdint>
#include <string>

namespace vexo::tools {

// The daemon listens on these two endpoints only. They are constants in the daemon, and are written
// here as this machine reaches them.
inline constexpr std::uint16_t kDefaultPort = 3265;
inline constexpr char kTcpEndpoint[] = "127.0.0.1";
inline constexpr char kUnixEndpoint[] = "unix:///tmp/iscsi/plugin_server.sock";

// The address of a daemon.
struct endpoint {
  enum class family { unix_socket, ipv4, ipv6, host_name };

  family kind = family::unix_socket;
  std::string host;        // empty for a unix socket; an IPv6 address is without brackets
  std::uint16_t port = 0;  // 0 for a unix socket
  std::string text;        // for people, and accepted by parse_endpoint again
  std::string target;      // for gRPC
};

// Accepts `unix:///path`, `HOST`, `HOST:PORT` and IPv6 addresses (in brackets when a port follows).
// Looks nothing up. Throws std::invalid_argument with a sentence for the user.
endpoint parse_endpoint(const std::string& text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_ENDPOINT_H_
