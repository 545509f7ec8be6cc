#include "common/connection.h"

#include <arpa/inet.h>
#include <grpcpp/create_channel_posix.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vexo::tools {

namespace {

unique_fd connect_to(int family, const void* address, socklen_t size) {
  unique_fd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), static_cast<const sockaddr*>(address), size) == 0 ||
      errno == EINPROGRESS) {
    return fd;
  }
  const int why = errno;
  fd.reset();
  errno = why;
  return fd;
}

// A kernel that does not know the option does without.
void set_tcp_option(int connection, int option, int value) {
  setsockopt(connection, IPPROTO_TCP, option, &value, sizeof value);
}

}  // namespace

unique_fd begin_connection(const endpoint& where) {
  if (where.kind == endpoint::family::unix_socket) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string_view path =
        std::string_view(where.target).substr(std::string_view("unix:").size());
    if (path.size() >= sizeof address.sun_path) {
      errno = ENAMETOOLONG;
      return {};
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return connect_to(AF_UNIX, &address, sizeof address);
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(where.port);
  if (inet_pton(AF_INET, where.host.c_str(), &address.sin_addr) != 1) {
    errno = EAFNOSUPPORT;
    return {};
  }
  unique_fd connection = connect_to(AF_INET, &address, sizeof address);
  // Requests are small, and must not wait for the answer to the one before.
  if (connection) set_tcp_option(connection.get(), TCP_NODELAY, 1);
  return connection;
}

void notice_silence(int connection) {
  constexpr int kIdle = 10;  // seconds
  constexpr int kInterval = 5;
  constexpr int kProbes = 3;
  const int on = 1;
  setsockopt(connection, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  set_tcp_option(connection, TCP_KEEPIDLE, kIdle);
  set_tcp_option(connection, TCP_KEEPINTVL, kInterval);
  set_tcp_option(connection, TCP_KEEPCNT, kProbes);
  // There are no probes while data is unacknowledged, which is sent again for a quarter of an hour.
  set_tcp_option(connection, TCP_USER_TIMEOUT, (kIdle + kProbes * kInterval) * 1000);
}

std::shared_ptr<grpc::Channel> make_channel(unique_fd connection) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);  // a thousand hosts with long names
  return grpc::CreateCustomInsecureChannelFromFd("daemon", connection.release(), arguments);
}

}  // namespace vexo::tools
