// What the daemon reports to.

#include <future>
#include <memory>

#include "fault_row.h"

namespace vexo::test {
namespace {

using enum operation;
using scsiplugin::LUN_TYPE_80;

using LogService = fault_row;

TEST_F(LogService, Absent) {
  row("/dev/log absent from the start", "everything is served as ever; nothing is logged anywhere");
  log.reset();
  start_daemon({}, false);
  seconds_until("service", [&] { return list_answers(); });
  witness_host host(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(host.next());
  observed("hand-shake succeeded");
  log = std::make_unique<dev_log>();
  EXPECT_TRUE(local->plain().lun_op(is_lun_support(kLun, LUN_TYPE_80)));
  EXPECT_TRUE(log->wait_for("Check lun support pass"));
  observed("logs from the first line after the service had come");
}

TEST_F(LogService, Restarted) {
  row("log service restarted, with hand-shakes before, meanwhile and after",
      "everything is served as ever; lines of the time without a service are lost, no others");
  start_daemon();
  witness_host host(&record, "esx", kTcpTarget);
  const auto hand_shake = [&] {
    EXPECT_TRUE(local->whole_hand_shake(kLun));
    EXPECT_TRUE(host.next());
  };
  hand_shake();
  EXPECT_TRUE(log->wait_for("Depart relation done ["));
  log.reset();
  for (int i = 0; i < 3; ++i) hand_shake();
  log = std::make_unique<dev_log>();
  for (int i = 0; i < 2; ++i) hand_shake();
  EXPECT_EQ(log->count("Depart relation done ["), 2U);
  observed("6 hand-shakes succeeded; the log has the first and the last 2");
}

TEST_F(LogService, Full) {
  row("log service hangs: /dev/log takes no more",
      "every call that logs waits, holding what it holds; what logs nothing goes on until it needs "
      "that; when the service reads on, all of it does, and no line is lost");
  start_daemon();
  witness_host host(&record, "esx", kTcpTarget);
  caller prober(connect(kUnixTarget));
  std::size_t asked = 0;
  std::future<answer> announced;
  {
    const auto held = log->hold();
    std::size_t answered = 0;
    scsiplugin::LunCmdResp response;
    constexpr std::size_t kMany = 5000;
    while (asked < kMany) {
      ++asked;
      const auto status =
          prober.lun_op_status(is_lun_support(kLun, LUN_TYPE_80), seconds(2), &response);
      if (!status.ok()) break;
      ++answered;
    }
    EXPECT_LT(answered, kMany);
    EXPECT_TRUE(list_answers());
    announced = std::async(std::launch::async, [&] { return local->ask(init_snapshot, kLun); });
    EXPECT_EQ(announced.wait_for(seconds(3)), std::future_status::timeout);
    witness_caller late(&record, kUnixTarget);
    EXPECT_EQ(late.ask(mirror_done, "other LUN", seconds(1)), answer::none);
    EXPECT_TRUE(list_answers());
    observed(counted(2 * answered, "line") +
             " taken, then every call that logs waits; lists are answered");
  }
  // The service reads again.
  witness_caller host_side(&record, kUnixTarget);
  seconds_until("the task", [&] { return host_side.says_yes(start_mirror, kLun); });
  EXPECT_EQ(announced.get(), answer::yes);
  EXPECT_TRUE(host.next());
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(host.next());
  seconds_until("every line", [&] {
    return log->count("Check lun support [") == asked &&
           log->count("Check lun support pass") == asked;
  });
  EXPECT_EQ(log->count("Mirror done [other LUN]"), 1U);
  observed("after it read on, what had waited was done, also what its callers had given up; all " +
           std::to_string(2 * asked) + " lines came");
}

}  // namespace
}  // namespace vexo::test
