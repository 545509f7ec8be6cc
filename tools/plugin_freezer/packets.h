#ifndef TOOLS_PLUGIN_FREEZER_PACKETS_H_
#define TOOLS_PLUGIN_FREEZER_PACKETS_H_

#include <google/protobuf/message_lite.h>

#include <chrono>
#include <cstdint>

namespace vexo::tools {

// Messages over a socket of type SOCK_SEQPACKET. Neither blocks.

// False when the other side has gone, or does not read.
bool send_packet(int socket, const google::protobuf::MessageLite& message);

enum class packet { received, none, closed };
packet receive_packet(int socket, google::protobuf::MessageLite& message);

// Points in time as messages and records have them.
inline std::int64_t to_ms(std::chrono::steady_clock::time_point time) {
  return std::chrono::ceil<std::chrono::milliseconds>(time.time_since_epoch()).count();
}
inline std::chrono::steady_clock::time_point from_ms(std::int64_t time) {
  return std::chrono::steady_clock::time_point(std::chrono::milliseconds(time));
}

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PACKETS_H_
