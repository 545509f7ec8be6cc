// What comes over a connection that is not meant for the daemon, or is not meant well.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <random>
#include <thread>

#include "fault_row.h"
#include "gauge.h"
#include "raw_socket.h"

namespace vexo::test {
namespace {

using enum operation;
using scsiplugin::LUN_TYPE_80;

using Strangers = fault_row;

TEST_F(Strangers, LongIdentifiers) {
  constexpr std::size_t kLong = std::size_t{64} << 10;
  row("plugin id and LUN identifier of 64 KiB each, then a request of 5 MiB",
      "the same as with short ones, log lines included; a request above the library's 4 MiB is "
      "refused before any handler");
  start_daemon();
  const std::string key(kLong, 'k');
  const std::string plugin_id(kLong, 'p');
  witness_host host(&record, plugin_id, kTcpTarget);
  EXPECT_EQ(local->plain().list().list(0).plugin_id(), plugin_id);
  EXPECT_FALSE(local->plain().lun_op(is_lun_support(key, LUN_TYPE_80)));
  auto announced =
      std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, key); });
  const auto command = host.next();
  ASSERT_TRUE(command);
  EXPECT_EQ(command->task_id(), key);
  EXPECT_TRUE(local->says_yes(start_mirror, key));
  EXPECT_TRUE(announced.get());
  for (const operation what : {mirror_done, depart_relation, wait_for_depart, depart_done}) {
    EXPECT_TRUE(local->says_yes(what, key)) << name_of(what);
  }
  host.unsubscribe();
  EXPECT_TRUE(log->wait_for("Disconnect: Plugin ID=" + plugin_id + " IP=127.0.0.1"));
  EXPECT_TRUE(log->wait_for("Depart relation done [" + key + "]"));
  observed("hand-shake succeeded, all log lines whole");
  scsiplugin::LunCmdResp response;
  const auto status = local->plain().lun_op_status(
      is_lun_support(std::string(std::size_t{5} << 20, 'x'), LUN_TYPE_80), kPatience, &response);
  EXPECT_EQ(status.error_code(), grpc::RESOURCE_EXHAUSTED);
  EXPECT_EQ(log->count("Check lun support ["), 1U);
  observed("5 MiB: RESOURCE_EXHAUSTED");
}

// What a port meets that is open to a network.
std::vector<std::string> garbage() {
  using namespace std::string_literals;
  const std::string preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
  const std::string settings("\0\0\0\4\0\0\0\0\0", 9);
  std::mt19937 random(1);
  std::string noise(100'000, '\0');
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
  return {
      "",
      noise,
      "GET / HTTP/1.1\r\nHost: appliance\r\n\r\n",
      "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"s + noise.substr(0, 505),  // TLS
      preface.substr(0, 10),
      preface + noise,
      preface + settings + noise,
      preface + settings + "\xff\xff\xff\0\0\0\0\0\1"s + noise,        // DATA of 16 MiB, no stream
      preface + settings + "\0\0\5\1\5\0\0\0\1\xff\xff\xff\xff\xff"s,  // HEADERS, bad compression
      preface + settings + "\0\0\4\3\0\0\0\0\1\0\0\0\1"s,              // RST_STREAM, no stream
      preface + settings + "\0\0\4\10\0\0\0\0\0\0\0\0\0"s,             // WINDOW_UPDATE by nothing
  };
}

TEST_F(Strangers, Garbage) {
  constexpr int kRounds = 40;
  row("garbage on both endpoints: silence, noise, HTTP/1.1, TLS, broken HTTP/2; 880 connections, "
      "some cut off, with hand-shakes meanwhile",
      "no handler is reached, nothing is logged, hand-shakes go on; files are as before when it is "
      "over");
  start_daemon();
  witness_host host(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  const std::size_t files = files_of(daemon->pid());
  const auto kinds = garbage();
  int hand_shakes = 1;
  std::size_t connections = 0;
  for (int i = 0; i < kRounds; ++i) {
    std::vector<int> open;
    for (const auto& bytes : kinds) {
      for (const bool tcp : {true, false}) {
        const int fd = tcp ? dial_tcp(3265) : dial_unix("/tmp/iscsi/plugin_server.sock");
        // Whether it is taken is the daemon's business.
        static_cast<void>(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
        const linger cut_off = {1, 0};
        if (i % 2 == 1) setsockopt(fd, SOL_SOCKET, SO_LINGER, &cut_off, sizeof cut_off);
        open.push_back(fd);
      }
    }
    EXPECT_TRUE(local->whole_hand_shake(kLun));
    ++hand_shakes;
    connections += open.size();
    for (const int fd : open) close(fd);
  }
  EXPECT_EQ(connections, 880U);
  const double took = seconds_until(
      "as many files as before", [&] { return files_of(daemon->pid()) <= files; }, seconds(60));
  for (int i = 0; i < hand_shakes; ++i) EXPECT_TRUE(host.next());
  EXPECT_EQ(log->count("Connected: "), 1U);
  EXPECT_EQ(log->count("Disconnect: "), 0U);
  observed(counted(connections, "connection") + ", " +
           counted(static_cast<std::size_t>(hand_shakes), "hand-shake") +
           " succeeded; files as before " + figure(took, 2) + " s after the last");
}

TEST_F(Strangers, Silence) {
  constexpr std::size_t kConnections = 50;
  row("50 connections that say nothing, or half a greeting",
      "each holds a file until the library drops it, after about 120 s; hand-shakes go on");
  start_daemon();
  EXPECT_TRUE(list_answers());  // this connection stays
  witness_host host(&record, "esx", kTcpTarget);
  const std::size_t files = files_of(daemon->pid());
  std::vector<int> open;
  for (std::size_t i = 0; i < kConnections; ++i) {
    open.push_back(dial_tcp(3265));
    EXPECT_GE(send(open.back(), "PRI * HTTP", i % 2 == 0 ? 0 : 10, MSG_NOSIGNAL), 0);
  }
  seconds_until("50 connections", [&] { return files_of(daemon->pid()) >= files + kConnections; });
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  const double took = seconds_until(
      "as many files as before", [&] { return files_of(daemon->pid()) <= files; }, seconds(180));
  EXPECT_GT(took, 60);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(host.next() && host.next());
  for (const int fd : open) close(fd);
  observed("all dropped after " + figure(took, 0) + " s");
}

}  // namespace
}  // namespace vexo::test
