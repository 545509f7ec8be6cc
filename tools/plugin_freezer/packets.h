#ifndef TOOLS_PLUGIN_FREEZER_PACKETS_H_
#define TOOLS_PLUGIN_FREEZER_PACKETS_H_

#include <google/protobuf/message_lite.h>

namespace vexo::tools {

// Messages over a socket of type SOCK_SEQPACKET. Neither blocks.

// False when the other side has gone, or does not read.
bool send_packet(int socket, const google::protobuf::MessageLite& message);

enum class packet { received, none, closed };
packet receive_packet(int socket, google::protobuf::MessageLite& message);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_PACKETS_H_
