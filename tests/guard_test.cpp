// plugin_ctl guard beside the real daemon, which keeps what it has always done: it notices no
// vanished host, and stops for nobody.

#include "guard.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <thread>

namespace vexo::test {
namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

int open_sockets(pid_t pid) {
  int sockets = 0;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    sockets += fs::read_symlink(entry, gone).string().starts_with("socket:") ? 1 : 0;
  }
  return sockets;
}

TEST_F(Guard, SweepsKilledHostsBeforeTheNextBroadcast) {
  start_supervisor();
  start_guard();
  const auto stays = start_agent({});
  std::map<std::string, std::unique_ptr<program>> hosts;
  for (const std::string id : {"", "a \"b\"", "h\xc3\xb6st"}) {
    hosts[id] = start_agent({"--plugin-id", id});
  }
  int most_sockets = 0;
  ASSERT_TRUE(wait_until([&] {
    most_sockets = std::max(most_sockets, open_sockets(guard->pid()));
    return has_status(R"("hosts":4)");
  }));
  const auto killed = clock::now();
  hosts.clear();
  for (const std::string id : {"", "a \"b\"", "h\xc3\xb6st"}) {
    EXPECT_TRUE(guard->wait_for_err("swept \"" + id + "\"")) << guard->err();
  }
  std::printf("three hosts swept %.2f s after they were killed\n", seconds_since(killed));
  whole_handshake(kLun);
  expect_restarts(0);
  EXPECT_TRUE(wait_until([] { return has_status(R"("hosts":1,"sweeps":3,"restarts":0)"); }));
  EXPECT_LE(most_sockets, 3) << "two connections, and the system log";
}

TEST_F(Guard, RestartsADaemonThatHangsOnAHostThatVanishedAMomentAgo) {
  start_supervisor();
  start_guard();
  const auto stays = start_agent({});
  auto vanishes = start_agent({"--plugin-id", "vanishes"});
  ASSERT_TRUE(wait_until([] { return has_status(R"("hosts":2)"); }));
  const pid_t hung = supervised->pid();
  guard->signal(SIGSTOP);  // so that it is the broadcast that comes first
  vanishes.reset();        // SIGKILL
  while (call->is_listed("vanishes")) std::this_thread::yield();
  const auto broadcast = clock::now();
  auto announced = std::async(std::launch::async, [] {
    scsiplugin::PluginCmdResp response;
    return caller(vexo::test::connect(kUnixTarget))
        .publish_status(init_snapshot(kLun), kPatience * 2, &response);
  });
  EXPECT_TRUE(log->wait_for("Init snapshots broadcast"));
  guard->signal(SIGCONT);
  const grpc::Status lost = announced.get();
  EXPECT_EQ(lost.error_code(), grpc::UNAVAILABLE) << lost.error_message();
  EXPECT_GT(seconds_since(broadcast), 24);
  EXPECT_TRUE(has_status(R"("state":"DOWN")"));
  EXPECT_TRUE(guard->wait_for_err("the daemon serves again")) << guard->err();
  call = std::make_unique<caller>(vexo::test::connect(kUnixTarget));
  EXPECT_TRUE(wait_until([&] { return call->is_listed("host"); }));
  const double back = seconds_since(broadcast);
  whole_handshake(kLun);
  std::printf(
      "from the broadcast that hung: all agents back after %.1f s, the next hand-shake done "
      "after %.1f s\n",
      back, seconds_since(broadcast));
  expect_restarts(1);
  const auto failed_for =
      numbers_in(guard->err(),
                 "restarting the daemon, process " + std::to_string(hung) + R"(: for ([0-9.]+) s)");
  ASSERT_EQ(failed_for.size(), 1U) << guard->err();
  EXPECT_GE(failed_for[0], 25);
  EXPECT_LT(failed_for[0], 35);
  for (const std::string& part :
       {std::string(" threads, "), std::string(" of 1024 files open, "),
        std::string("sent SIGABRT"), std::string("has ended; its supervisor"),
        "serves again, process " + std::to_string(supervised->pid())}) {
    EXPECT_NE(guard->err().find(part), std::string::npos) << part << "\n" << guard->err();
  }
  EXPECT_TRUE(wait_until([] { return guard_status().status == 0; }));
  EXPECT_TRUE(has_status(R"("restarts":1)"));
}

// What the window between the last look and the UnSubscribe comes to. Who is hit in it is told by
// the end of the stream; or not told, if that comes before the daemon waits on the stream, and then
// finds itself unlisted, which an agent looks for.
TEST_F(Guard, AHostThatComesBackDuringASweepIsRarelyHitAndNeverForGood) {
  constexpr int kHosts = 4;
  constexpr int kRounds = 150;
  constexpr int kLongestDelayUs = 60000;
  start_supervisor();
  start_guard({"--interval", "0.02"});  // so that most hosts come back during a sweep
  std::atomic<int> hits = 0;
  std::atomic<int> deaf = 0;
  std::vector<std::thread> hosts;
  for (int i = 0; i < kHosts; ++i) {
    hosts.emplace_back([&, i] {
      const std::string id = "host-" + std::to_string(i);
      caller local(vexo::test::connect(kUnixTarget));
      std::mt19937 random(i);
      std::uniform_int_distribution<int> delay(0, kLongestDelayUs);
      const auto come_back = [&] {
        return std::make_unique<subscriber>(vexo::test::connect(kTcpTarget), id);
      };
      const auto is_listed = [&] { return local.is_listed(id); };
      auto host = come_back();
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_TRUE(wait_until(is_listed));
        host.reset();  // cancels the call, as when the host vanishes
        std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
        host = come_back();
        // Whatever was on its way to the host's previous connection comes meanwhile.
        wait_until(is_listed, std::chrono::seconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (is_listed()) continue;
        ++hits;
        deaf += host->has_ended() ? 0 : 1;
        host = come_back();
      }
    });
  }
  for (auto& host : hosts) host.join();
  const auto windows = numbers_in(guard->err(), R"(unsubscribed ([0-9.]+) ms after)");
  std::printf("%d times back during a sweep: %d hit, of these %d not told; window %s ms\n",
              kHosts * kRounds, hits.load(), deaf.load(), spread(windows).c_str());
  // It would be a third if the last look were not immediately before the UnSubscribe.
  EXPECT_LT(hits, kHosts * kRounds / 6);
  expect_restarts(0);
}

// Connections to the TCP port, each made when the one before has been served or turned away.
class crowd {
 public:
  crowd() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  void grow(int count) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(3265);
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    for (int i = 0; i < count; ++i) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
      pollfd news = {fd, POLLIN, 0};
      EXPECT_EQ(poll(&news, 1, std::chrono::milliseconds(kPatience).count()), 1);
      sockets_.push_back(fd);
    }
  }
  ~crowd() {
    for (const int fd : sockets_) close(fd);
  }
  crowd(const crowd&) = delete;
  crowd& operator=(const crowd&) = delete;

 private:
  std::vector<int> sockets_;
};

// A full daemon is left alone, and serves when there is room again.
TEST_F(Guard, LeavesADaemonAloneThatHasRunOutOfFiles) {
  start_supervisor();
  start_guard({"--fail-after", "4", "--timeout", "1"});
  {
    crowd connections;
    connections.grow(1100);
    ASSERT_TRUE(wait_until([&] {
      connections.grow(1);  // into the place of a look of the guard's
      return guard->err().find("closes new connections at once") != std::string::npos;
    })) << guard->err();
    EXPECT_TRUE(wait_until([] { return guard_status().status == 1; }));
    std::this_thread::sleep_for(std::chrono::seconds(6));  // and would be ended, if it ever were
  }
  scsiplugin::PluginClientList list;
  EXPECT_TRUE(wait_until([&] {
    return caller(vexo::test::connect(kTcpTarget)).list_status(std::chrono::seconds(1), &list).ok();
  }));
  EXPECT_TRUE(wait_until([] { return guard_status().status == 0; })) << guard->err();
  expect_restarts(0);
}

TEST_F(Guard, LeavesALegalWaitAlone) {
  start_supervisor();
  start_guard({"--fail-after", "5"});
  const auto host = std::make_unique<subscriber>(vexo::test::connect(kTcpTarget), "silent host");
  while (!call->is_listed("silent host")) std::this_thread::yield();
  const auto start = clock::now();
  EXPECT_FALSE(announce(kLun));
  EXPECT_GT(seconds_since(start), 59);
  expect_restarts(0);
  EXPECT_EQ(guard->err().find("restarting"), std::string::npos) << guard->err();
  EXPECT_EQ(guard_status().status, 0) << guard->err();
}

// A command larger than what may be under way to a host that takes nothing: its write blocks the
// daemon until the connection is given up.
TEST_F(Guard, GivesAStalledHostItsTwentySeconds) {
  constexpr std::size_t kMoreThanAWindow = 3U << 20U;
  start_supervisor();
  start_guard();
  const auto stalled = start_agent({});
  ASSERT_TRUE(wait_until([] { return has_status(R"("hosts":1)"); }));
  stalled->signal(SIGSTOP);
  siginfo_t info = {};
  ASSERT_EQ(waitid(P_PID, stalled->pid(), &info, WSTOPPED | WNOWAIT), 0);
  const auto start = clock::now();
  const auto announced = std::async(std::launch::async, [] {
    scsiplugin::PluginCmdResp response;
    caller(vexo::test::connect(kUnixTarget))
        .publish_status(init_snapshot(std::string(kMoreThanAWindow, 'x')), kPatience, &response);
  });
  ASSERT_TRUE(guard->wait_for_err("the daemon does not answer")) << guard->err();
  ASSERT_TRUE(guard->wait_for_err("swept \"host\"")) << guard->err();
  std::printf("a stalled host held the daemon for %.1f s\n", seconds_since(start));
  expect_restarts(0);
}

TEST_F(Guard, FollowsADaemonThatComesAndGoes) {
  start_guard({"--fail-after", "2", "--timeout", "0.5"}, false);
  EXPECT_TRUE(guard->wait_for_err("no daemon is running")) << guard->err();
  EXPECT_EQ(guard_status().status, 3);
  // The absence, however long, is not held against the daemon that comes.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  start_supervisor();
  EXPECT_TRUE(guard->wait_for_err("the daemon serves on both endpoints")) << guard->err();
  EXPECT_TRUE(wait_until([] { return guard_status().status == 0; }));
  // One endpoint lost is a daemon to be restarted.
  ASSERT_TRUE(fs::remove("/tmp/iscsi/plugin_server.sock"));
  EXPECT_TRUE(wait_until([] { return guard_status().status == 1; })) << guard->err();
  EXPECT_TRUE(guard->wait_for_err("plugin_server.sock is gone")) << guard->err();
  EXPECT_TRUE(guard->wait_for_err("the daemon serves again")) << guard->err();
  expect_restarts(1);
  guard->signal(SIGTERM);
  EXPECT_EQ(guard->wait(), 0);
  const ended_program ended = guard_status();
  EXPECT_EQ(ended.status, 3);
  EXPECT_NE(ended.err.find("no guard writes /tmp/guard_status.json"), std::string::npos);
}

TEST_F(Guard, EndsTheRightProcessOrNone) {
  const words quick = {"--fail-after", "2", "--timeout", "0.6"};
  const auto with = [&](words more) {
    more.insert(more.end(), quick.begin(), quick.end());
    return more;
  };
  start_supervisor();
  start_guard(with({"--no-kill"}));
  const pid_t stopped = supervised->pid();
  kill(stopped, SIGSTOP);
  EXPECT_TRUE(guard->wait_for_err("would restart (--no-kill)")) << guard->err();
  EXPECT_EQ(guard_status().status, 3);
  EXPECT_EQ(supervised->pid(), stopped);

  // A file that an earlier daemon has left, whose number is another's by now.
  const std::string pid_file = "/tmp/daemon.pid";
  const program other({"sleep", "600"});
  std::ofstream(pid_file) << other.pid() << "\n";
  fs::last_write_time(pid_file, fs::file_time_type::clock::now() - std::chrono::hours(1));
  start_guard(with({"--pid-file", pid_file}), false);
  EXPECT_TRUE(guard->wait_for_err("is older than process " + std::to_string(other.pid())))
      << guard->err();
  EXPECT_EQ(kill(other.pid(), 0), 0);

  // The right one hears SIGABRT no more than it hears anything, and has to be killed.
  std::ofstream(pid_file) << stopped << "\n";
  EXPECT_TRUE(guard->wait_for_err("sent SIGABRT to the daemon, process " + std::to_string(stopped)))
      << guard->err();
  EXPECT_TRUE(guard->wait_for_err("sent SIGKILL")) << guard->err();
  EXPECT_TRUE(guard->wait_for_err("the daemon serves again")) << guard->err();
  expect_restarts(1);
}

TEST(GuardStatus, IsDownUnlessALivingGuardSaysOtherwise) {
  const std::string path = testing::TempDir() + "guard_status_test.json";
  const struct {
    const char* text;
    int age_seconds;
    int status;
    const char* err;
  } cases[] = {
      {R"({"state":"OK","sweeps":3})", 0, 0, ""},
      {R"({"state":"DEGRADED","error":"127.0.0.1:3265 is full"})", 0, 1, "is full"},
      {R"({"state":"DOWN","error":"no daemon"})", 0, 3, "no daemon"},
      {R"({"state":"OK","of_a_later_version":1})", 0, 0, ""},
      {R"({"state":"OK"})", 60, 3, "has written nothing since"},
      {R"({"state":"OK"})", -60, 3, "has written nothing since"},
      {R"({"state":"O)", 0, 3, "is no guard's status"},
      {"", 0, 3, "is no guard's status"},
  };
  for (const auto& [text, age, status, err] : cases) {
    SCOPED_TRACE(text);
    std::ofstream(path) << text;
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(age));
    const ended_program ended = run({PLUGIN_CTL, "guard-status", "--status-file", path});
    EXPECT_EQ(ended.status, status);
    EXPECT_NE(ended.err.find(err), std::string::npos) << ended.err;
  }
  fs::remove(path);
  EXPECT_EQ(run({PLUGIN_CTL, "guard-status", "--status-file", path}).status, 3);
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }
