#include "plugin_guard/local_socket.h"

#include <arpa/inet.h>
#include <grpcpp/create_channel_posix.h>
#include <netinet/in.h>
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
  return connect_to(AF_INET, &address, sizeof address);
}

std::shared_ptr<grpc::Channel> make_channel(unique_fd connection) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);  // a thousand hosts with long names
  return grpc::CreateCustomInsecureChannelFromFd("guard", connection.release(), arguments);
}

}  // namespace vexo::tools
