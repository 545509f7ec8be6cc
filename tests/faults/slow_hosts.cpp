// Hosts that take no data, or little, and what waits for them.

#include <csignal>
#include <future>
#include <thread>

#include "fault_row.h"
#include "relay.h"

namespace vexo::test {
namespace {

using enum operation;

constexpr std::size_t kPadding = std::size_t{16} << 10;

class Slow : public fault_row {
 protected:
  // An announcement of 16 KiB, answered by a host as soon as there is a task.
  std::future<answer> begin_announcement(const std::string& key) {
    const std::string line = "Init snapshots broadcast [" + key + "]";
    const std::size_t before = log->count(line);
    auto announced = std::async(std::launch::async, [this, key] {
      return local->ask(init_snapshot, key, seconds(150), kPadding);
    });
    seconds_until("the announcement", [&] { return log->count(line) > before; });
    seconds_until("the task", [&] { return local->says_yes(start_mirror, key); });
    return announced;
  }
};

TEST_F(Slow, StoppedWithAFullWindow) {
  row("host stopped (SIGSTOP) while announcements of 16 KiB go on, until no more fits into the "
      "connection",
      "the announcement that no longer fits waits, and with it whatever needs the registry, until "
      "the "
      "transport gives the connection up, about 20 s after the host last took data; LunOp goes on "
      "meanwhile; then it goes to the other hosts and succeeds, and the host counts as gone");
  start_daemon();
  host_process host(&record, "esx", kTcpTarget);
  host.process().signal(SIGSTOP);
  constexpr int kTooMany = 1000;
  int taken = 0;
  for (;; ++taken) {
    ASSERT_LT(taken, kTooMany);
    auto announced = begin_announcement(kLun);
    if (announced.wait_for(seconds(2)) == std::future_status::timeout) {
      EXPECT_FALSE(list_answers());
      EXPECT_TRUE(local->plain().lun_op(is_lun_support(kLun, scsiplugin::LUN_TYPE_80)));
      const double waited =
          3 + seconds_until(
                  "its end",
                  [&] { return announced.wait_for(seconds(0)) == std::future_status::ready; },
                  seconds(60));
      EXPECT_EQ(announced.get(), answer::yes);
      EXPECT_GT(waited, 10);
      EXPECT_LT(waited, 30);
      observed(std::to_string(taken) + " announcements (" + figure(taken * 16.0 / 1024) +
               " MiB) fitted; the next took " + figure(waited, 0) + " s and succeeded");
      break;
    }
    ASSERT_EQ(announced.get(), answer::yes);
    EXPECT_TRUE(local->says_yes(depart_done, kLun));
  }
  EXPECT_FALSE(local->plain().is_listed("esx"));
  host.leaving();
  local->plain().unsubscribe("esx");
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  host.process().signal(SIGCONT);
  seconds_until("what had reached it",
                [&] { return host.process().err().find("Subscribe at") != std::string::npos; });
  EXPECT_LT(host.received(), static_cast<std::size_t>(taken));
  observed("of these the host received " + std::to_string(host.received()) + " when it went on");
  witness_host back(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(back.next());
}

TEST_F(Slow, Reader) {
  constexpr int kAnnouncements = 500;
  row("host that takes 512 KiB/s, and 500 announcements of 16 KiB as fast as they go",
      "when the connection is full, announcements go at the slow host's pace, and succeed; it "
      "receives every one, once and in order");
  start_daemon();
  witness_host fast(&record, "fast", kTcpTarget);
  const auto announce_all = [&] {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kAnnouncements; ++i) {
      EXPECT_EQ(begin_announcement(kLun).get(), answer::yes);
      EXPECT_TRUE(local->says_yes(depart_done, kLun));
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  const double alone = announce_all();
  relay between(3265, std::size_t{512} << 10);
  witness_host slow(&record, "slow", between.target());
  const double with_slow = announce_all();
  EXPECT_GT(with_slow, alone);
  std::uint32_t last = 0;
  for (int i = 0; i < kAnnouncements; ++i) {
    const auto message = slow.next();
    ASSERT_TRUE(message) << i;
    EXPECT_GT(message->cmd_sn(), last);
    last = message->cmd_sn();
  }
  for (int i = 0; i < 2 * kAnnouncements; ++i) EXPECT_TRUE(fast.next());
  EXPECT_TRUE(local->plain().is_listed("slow"));
  observed("500 announcements in " + figure(with_slow) + " s (" + figure(alone) +
           " s without the slow host); all received, once and in order");
}

}  // namespace
}  // namespace vexo::test
