#ifndef TOOLS_PLUGIN_FREEZER_PACKETS_H_
#define TOOLS_PLUGIN_FREEZER_PACKETS_H_

#include <google/protobuf/message_lite.h>

namespace vexo::tools {

// A message to a packet, over a socket of type SOCK_SEQPACKET. Neither function blocks.

// False when the other side has closed the socket, or does not read.
bool send_packet(int socket, const google::protobuf::MessageLite& message);

enum class packet { received, none, closed };
// `none` also for a packet that is no such message.
packet receive_packet(int socket, google::protobuf::MessageLite& message);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PACKETS_H_
