// The clock that every wait and the expiry of hand-shakes are measured on.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "fault_row.h"

namespace vexo::test {
namespace {

using enum operation;

class Clock : public fault_row {
 protected:
  void start() {
    const int fd = open("/tmp/clock_step", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_EQ(ftruncate(fd, sizeof(std::int64_t)), 0);
    step_ = static_cast<std::atomic<std::int64_t>*>(
        mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    daemon_options how;
    how.preload = SHIFTED_CLOCK;
    start_daemon(how);
    host_ = std::make_unique<witness_host>(&record, "esx", kTcpTarget);
  }
  void TearDown() override {
    host_.reset();
    fault_row::TearDown();
  }
  // The history first knows of a step forward, and last of one backward: either way it allows the
  // daemon what the daemon may see.
  void step(seconds by) {
    record.step_clock(by);
    step_->fetch_add(std::chrono::nanoseconds(by).count());
  }
  // An announcement that a host answered, and nobody went on with.
  void abandon_hand_shake() {
    auto announced =
        std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, kLun); });
    seconds_until("the task", [&] { return local->says_yes(start_mirror, kLun); });
    EXPECT_TRUE(announced.get());
  }
  // An announcement that nobody answers, with a step of the clock after `after`: the seconds that
  // it took.
  double unanswered_with_step(milliseconds after, seconds by) {
    const auto begin = std::chrono::steady_clock::now();
    auto announced =
        std::async(std::launch::async, [&] { return local->ask(init_snapshot, kLun); });
    EXPECT_EQ(announced.wait_for(after), std::future_status::timeout);
    step(by);
    EXPECT_EQ(announced.get(), answer::no);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }

 private:
  std::atomic<std::int64_t>* step_ = nullptr;
  std::unique_ptr<witness_host> host_;
};

TEST_F(Clock, SteppedForward) {
  row("wall clock stepped forward by 301 s, with an abandoned hand-shake in the table",
      "the hand-shake counts as expired: a new one of its LUN is refused before and begins after");
  start();
  abandon_hand_shake();
  EXPECT_EQ(local->ask(init_snapshot, kLun), answer::no);
  step(seconds(301));
  auto announced =
      std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, kLun); });
  EXPECT_TRUE(log->wait_for("has been expired!"));  // a host's answer would go to the old one
  EXPECT_TRUE(local->says_yes(start_mirror, kLun));
  EXPECT_TRUE(announced.get());
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  EXPECT_EQ(log->count("has been expired! try to remove it and create a new one"), 1U);
  observed("refused, then succeeded with the line \"has been expired!\"");
}

TEST_F(Clock, SteppedBackward) {
  row("wall clock stepped back by an hour, with an abandoned hand-shake in the table",
      "the hand-shake counts as new until the clock has made up for the step and 300 s more; "
      "depart_done ends it at once");
  start();
  abandon_hand_shake();
  step(seconds(-3600));
  EXPECT_EQ(local->ask(init_snapshot, kLun), answer::no);
  step(seconds(3600 + 290));
  EXPECT_EQ(local->ask(init_snapshot, kLun), answer::no);
  step(seconds(-290));
  EXPECT_EQ(log->count("has been expired"), 0U);
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  observed(
      "refused after the step, and when the clock stood 290 s after the beginning; accepted after "
      "depart_done");
}

TEST_F(Clock, SteppedForwardWhileWaiting) {
  row("wall clock stepped forward by 45 s while an announcement waits for its answer",
      "the wait ends that much earlier: 60 s of the wall clock");
  start();
  const double took = unanswered_with_step(seconds(5), seconds(45));
  EXPECT_GE(took, 14.9);
  EXPECT_LT(took, 20);
  observed("answered no after " + figure(took) +
           " s; the step is that of a preloaded clock, the machine's "
           "own was not touched");
  EXPECT_TRUE(local->whole_hand_shake(kLun));
}

TEST_F(Clock, SteppedBackwardWhileWaiting) {
  row("wall clock stepped back by 20 s while an announcement waits for its answer",
      "the wait ends that much later; a host's answer still ends it at once");
  start();
  const double took = unanswered_with_step(seconds(5), seconds(-20));
  EXPECT_GE(took, 79.9);
  EXPECT_LT(took, 85);
  observed("answered no after " + figure(took) +
           " s; the step is that of a preloaded clock, the machine's "
           "own was not touched");
  EXPECT_TRUE(local->whole_hand_shake(kLun));
}

}  // namespace
}  // namespace vexo::test
