// Many hand-shakes while hosts are killed at random: whatever happens to each of them, it ends.

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "guard.h"

namespace vexo::test {
namespace {

using clock = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

// How rough it gets. GUARD_CHAOS=300 plays that many hand-shakes with the guard's and the caller's
// own time limits, which takes a quarter of an hour; otherwise it is a short piece in a hurry.
struct plan {
  int hand_shakes = 24;
  words guard_options = {"--fail-after", "3", "--timeout", "0.6"};
  std::string call_timeout = "10";  // of one call of a local caller; six make a hand-shake
  seconds host_life{12};
  seconds longest_pause{2};  // of a local caller between two hand-shakes
};

plan make_plan() {
  plan made;
  if (const char* const hand_shakes = std::getenv("GUARD_CHAOS")) {
    made = {std::atoi(hand_shakes), {}, "65", seconds(30), seconds(8)};
  }
  return made;
}

constexpr int kLuns = 6;

std::string lun(int index) { return "00000000-0000-0000-0000-00000000000" + std::to_string(index); }
std::string host_id(int index) { return "host-" + std::to_string(index); }

std::string write_inventory() {
  std::string path = "/tmp/chaos_luns.json";
  std::ofstream file(path);
  file << R"({"storage_objects": [)";
  for (int i = 0; i < kLuns; ++i) file << (i > 0 ? "," : "") << R"({"wwn": ")" << lun(i) << "\"}";
  file << "]}";
  return path;
}

class GuardChaos : public Guard {
 protected:
  void SetUp() override {
    Guard::SetUp();
    if (IsSkipped()) return;
    daemon_options how;
    how.inventory = write_inventory();
    start_supervisor(how);
    start_guard(chaos.guard_options);
  }

  // A host that is killed again and again: mostly at once, now and then after it has stood still
  // for a while.
  void live_and_die(int index) {
    std::mt19937 random(index);
    std::exponential_distribution<double> life(1 / chaos.host_life.count());
    std::uniform_real_distribution<double> chance(0, 1);
    while (!over) {
      program agent({PLUGIN_AGENT, "--appliance", "127.0.0.1", "--lun", lun(index), "--plugin-id",
                     host_id(index), "--poll", "0.05", "--run-dir",
                     "/run/agent-" + std::to_string(index)});
      pause(seconds(1 + life(random)));
      if (!over && chance(random) < 0.3) {
        agent.signal(SIGSTOP);
        pause(seconds(3 * chance(random)));
      }
      agent.signal(over ? SIGTERM : SIGKILL);
      kills += over ? 0 : 1;
      agent.wait();
      pause(seconds(2 * chance(random)));
    }
  }

  // A local caller, one hand-shake after the other.
  void take_snapshots(int index) {
    const double limit = 6 * std::stod(chaos.call_timeout) + 10;
    std::mt19937 random(100 + index);
    std::uniform_real_distribution<double> wait(0, chaos.longest_pause.count());
    while (begun++ < chaos.hand_shakes) {
      pause(seconds(wait(random)));
      const auto start = clock::now();
      program snapshot(ctl({"--timeout", chaos.call_timeout, "snapshot", "--p80", lun(index),
                            "--mirror", "true", "--split", "true"}));
      const int status = snapshot.wait(std::chrono::seconds(static_cast<int>(limit)));
      const double took = seconds_since(start);
      const std::lock_guard lock(mutex);
      ++ends[status];
      longest = std::max(longest, took);
      EXPECT_NE(status, -1) << "a hand-shake goes on after " << took << " s";
      EXPECT_TRUE(status == 0 || !snapshot.err().empty()) << "failed without a report";
    }
  }

  void pause(seconds time) const {
    const auto end = clock::now() + time;
    while (!over && clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  const plan chaos = make_plan();
  std::atomic<bool> over = false;
  std::atomic<int> begun = 0;
  std::atomic<int> kills = 0;
  std::mutex mutex;
  std::map<int, int> ends;  // under mutex: how often plugin_ctl ended with which code
  double longest = 0;       // under mutex
};

TEST_F(GuardChaos, EveryHandShakeEnds) {
  const auto start = clock::now();
  std::vector<std::thread> hosts;
  std::vector<std::thread> callers;
  for (int i = 0; i < kLuns; ++i) hosts.emplace_back([this, i] { live_and_die(i); });
  for (int i = 0; i < kLuns; ++i) callers.emplace_back([this, i] { take_snapshots(i); });
  for (auto& one : callers) one.join();
  const double took = seconds_since(start);
  over = true;
  for (auto& one : hosts) one.join();

  // When it is quiet again all is well, at the latest after one more restart.
  const auto survivor = start_agent({"--lun", lun(0)}, false);
  EXPECT_TRUE(wait_until(
      [&] {
        return run(ctl({"--timeout", "10", "snapshot", "--p80", lun(0)}), {}, kPatience * 2)
                   .status == 0;
      },
      kPatience * 3))
      << guard->err();
  EXPECT_TRUE(wait_until([] { return guard_status().status == 0; })) << guard->err();

  std::printf("%d hand-shakes in %.0f s, the longest %.1f s; hosts killed %d times\n",
              chaos.hand_shakes, took, longest, kills.load());
  for (const auto& [status, count] : ends) std::printf("  exit code %d: %d\n", status, count);
  std::printf("restarts %d, seconds until the daemon served again %s\n", supervised->restarts(),
              spread(numbers_in(guard->err(), R"(, ([0-9.]+) s after it failed)")).c_str());
  EXPECT_GT(ends[0], 0);
  EXPECT_EQ(guard->err().find("does not end"), std::string::npos);
}

}  // namespace
}  // namespace vexo::test
