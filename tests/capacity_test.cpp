// The real process with more hosts than files.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <string>
#include <thread>

#include "calls.h"
#include "daemon.h"
#include "sandbox.h"
#include "subscriber.h"

namespace vexo::test {
namespace {

// A connection that asks for nothing. The server speaks first, if it serves it.
class bare_connection {
 public:
  explicit bare_connection(int family) : socket_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_storage address = {};
    address.ss_family = static_cast<sa_family_t>(family);
    socklen_t size = sizeof(sockaddr_in);
    if (family == AF_INET) {
      auto& tcp = reinterpret_cast<sockaddr_in&>(address);
      tcp.sin_port = htons(3265);
      tcp.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      std::strcpy(reinterpret_cast<sockaddr_un&>(address).sun_path,
                  "/tmp/iscsi/plugin_server.sock");
      size = sizeof(sockaddr_un);
    }
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), size), 0)
        << std::strerror(errno);
  }
  ~bare_connection() { close(socket_); }
  bare_connection(const bare_connection&) = delete;
  bare_connection& operator=(const bare_connection&) = delete;

  // Whether the server serves it; false when it closed it. Waits for one of the two.
  bool served() const {
    pollfd event = {socket_, POLLIN, 0};
    EXPECT_EQ(poll(&event, 1, std::chrono::milliseconds(kPatience).count()), 1)
        << "neither served nor closed";
    char first = 0;
    return recv(socket_, &first, 1, MSG_PEEK) == 1;
  }

 private:
  int socket_;
};

using Capacity = sandboxed;

TEST_F(Capacity, MoreHostsThanFilesAreTurnedAwayUntilOthersLeave) {
  dev_log log;
  daemon_options how;
  how.open_files = {64, 64};
  how.may_raise_limits = false;
  const daemon_process daemon(&log, how);
  subscriber host(connect(kTcpTarget), "host");
  caller local(connect(kUnixTarget));
  while (!local.is_listed("host")) std::this_thread::yield();

  for (const std::string lun : {"lun-1", "lun-2"}) {
    SCOPED_TRACE(lun);
    std::list<bare_connection> others;
    do {
      others.emplace_back(AF_INET);
      ASSERT_LE(others.size(), 64U);
    } while (others.back().served());
    EXPECT_GT(others.size(), 32U);
    for (int i = 0; i < 10; ++i) {
      EXPECT_FALSE(bare_connection(AF_INET).served());
      EXPECT_FALSE(bare_connection(AF_UNIX).served());
    }

    // Who was there before notices nothing.
    EXPECT_TRUE(local.is_listed("host"));
    EXPECT_TRUE(local.lun_op(is_lun_support(kLun, scsiplugin::LUN_TYPE_80)));
    std::thread announcement([&] { EXPECT_TRUE(local.publish(init_snapshot(lun))); });
    EXPECT_TRUE(host.next_cmd());
    EXPECT_TRUE(local.lun_op(start_mirror(lun)));
    announcement.join();

    // The daemon takes a moment to see that they left.
    others.clear();
    for (const int family : {AF_INET, AF_UNIX}) {
      std::list<bare_connection> again;
      while (again.size() < 10) {
        ASSERT_TRUE(daemon.alive());
        again.emplace_back(family);
        if (!again.back().served()) again.pop_back();
      }
    }
    for (const char* target : {kTcpTarget, kUnixTarget}) {
      EXPECT_TRUE(caller(connect(target)).is_listed("host")) << target;
    }
  }
  EXPECT_EQ(log.count("Disconnect"), 0U);
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }
