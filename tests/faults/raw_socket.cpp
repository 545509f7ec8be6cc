#include "raw_socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace vexo::test {

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

template <typename Address>
int dial(int family, const Address& address) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  return fd;
}

}  // namespace

int dial_tcp(int port) { return dial(AF_INET, loopback(port)); }

int dial_unix(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return dial(AF_UNIX, address);
}

int listen_on_loopback(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
  EXPECT_EQ(listen(fd, 1), 0);
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  *port = ntohs(address.sin_port);
  return fd;
}

}  // namespace vexo::test
