#include "plugin_freezer/packets.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>

namespace vexo::tools {

bool send_packet(int socket, const google::protobuf::MessageLite& message) {
  const std::string text = message.SerializeAsString();
  return send(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(text.size());
}

packet receive_packet(int socket, google::protobuf::MessageLite& message) {
  const ssize_t size = recv(socket, nullptr, 0, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC);
  // When the other side closes the socket with packets of ours unread, the first recv() fails with
  // ECONNRESET; the packets that it had sent follow.
  if (size < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET)) return packet::none;
  if (size <= 0) return packet::closed;
  std::string text(static_cast<std::size_t>(size), '\0');
  recv(socket, text.data(), text.size(), MSG_DONTWAIT);
  return message.ParseFromString(text) ? packet::received : packet::none;
}

}  // namespace vexo::tools
