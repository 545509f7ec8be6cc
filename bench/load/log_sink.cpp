#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "connection.h"
#include "modes.h"

namespace vexo::bench {

void take_log() {
  constexpr int kAtOnce = 64;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    give_up("cannot be /dev/log");
  }
  char buffer[1];  // the rest is dropped
  iovec part = {buffer, sizeof buffer};
  mmsghdr messages[kAtOnce] = {};
  for (auto& message : messages) {
    message.msg_hdr.msg_iov = &part;
    message.msg_hdr.msg_iovlen = 1;
  }
  for (;;) recvmmsg(log, messages, kAtOnce, MSG_WAITFORONE, nullptr);
}

}  // namespace vexo::bench
