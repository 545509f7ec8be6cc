#include "relay.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "raw_socket.h"

namespace vexo::test {

relay::relay(int server_port, std::size_t bytes_a_second)
    : bytes_a_second_(bytes_a_second),
      listener_(listen_on_loopback(&port_)),
      server_(dial_tcp(server_port)) {
  thread_ = std::thread(&relay::hand_on, this);
}

relay::~relay() {
  shutdown(listener_, SHUT_RDWR);
  shutdown(server_, SHUT_RDWR);
  thread_.join();
  for (const int fd : {listener_, client_, server_}) close(fd);
}

std::string relay::target() const { return "127.0.0.1:" + std::to_string(port_); }

void relay::shut_towards_server() const { EXPECT_EQ(shutdown(server_, SHUT_WR), 0); }

void relay::hand_on() {
  client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  std::array<pollfd, 2> ends = {{{client_, POLLIN, 0}, {server_, POLLIN, 0}}};
  std::array<char, 4096> buffer = {};
  while (poll(ends.data(), ends.size(), -1) > 0) {
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (ends[i].revents == 0) continue;
      const ssize_t size = read(ends[i].fd, buffer.data(), buffer.size());
      if (i == 1 && bytes_a_second_ > 0 && size > 0) {
        const auto taken = std::chrono::duration<double>(static_cast<double>(size) /
                                                         static_cast<double>(bytes_a_second_));
        std::this_thread::sleep_for(taken);
      }
      if (size <= 0) {
        shutdown(ends[1 - i].fd, SHUT_RDWR);
        return;
      }
      // Fails towards an end that was shut, which loses what it is meant to lose.
      if (send(ends[1 - i].fd, buffer.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL) < 0) {
        continue;
      }
    }
  }
}

}  // namespace vexo::test
