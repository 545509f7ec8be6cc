#include "connection.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vexo::bench {

namespace {

constexpr int kPatienceMs = 20'000;

int epoll() {
  static const int fd = epoll_create1(EPOLL_CLOEXEC);
  return fd;
}

}  // namespace

void give_up(const std::string& why) {
  std::fprintf(stderr, "load: %s\n", why.c_str());
  std::exit(1);
}

connection::connection(std::uint16_t port)
    : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    give_up("port " + std::to_string(port) + ": " + std::strerror(errno));
  }
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  epoll_event event = {EPOLLIN, {this}};
  epoll_ctl(epoll(), EPOLL_CTL_ADD, socket_, &event);
}

connection::~connection() { close(socket_); }

void connection::run_once() {
  epoll_event events[64];
  const int count = epoll_wait(epoll(), events, 64, kPatienceMs);
  if (count == 0) give_up("the server does not answer");
  // A callback may make connections, but must not end one.
  for (int i = 0; i < count; ++i) static_cast<connection*>(events[i].data.ptr)->read();
}

void connection::send(std::string_view bytes) {
  const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(bytes.size())) give_up("the server takes no more bytes");
}

void connection::read() {
  char buffer[65536];
  const ssize_t size = recv(socket_, buffer, sizeof buffer, 0);
  if (size <= 0) give_up("the server closed a connection");
  if (received_.empty()) {
    // Mostly whole elements arrive, and nothing is copied.
    const std::string_view bytes(buffer, static_cast<std::size_t>(size));
    received_ = bytes.substr(take(bytes));
    return;
  }
  received_.append(buffer, static_cast<std::size_t>(size));
  received_.erase(0, take(received_));
}

}  // namespace vexo::bench
