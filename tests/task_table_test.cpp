// Tasks in the table: created, refused, expired, waited for, deleted.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <vector>

#include "captured_syslog.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using namespace std::chrono_literals;
using TaskTable = service;

// The fuzz corpus of the controller checks the exact second, with a virtual clock.
TEST_F(TaskTable, AnExpiredTaskIsReplacedAndLogged) {
  ASSERT_TRUE(ctrl().add_task("K"));
  const auto old = ctrl().find_task("K");
  old->set_state(TASK_DEPART_STARTED);
  EXPECT_FALSE(ctrl().add_task("K"));
  EXPECT_TRUE(captured_syslog().lines().empty());
  old->create_time -= 300s;
  EXPECT_TRUE(ctrl().add_task("K"));
  EXPECT_EQ(captured_syslog().lines(), std::vector{line(15, "K")});
  const auto now = ctrl().find_task("K");
  EXPECT_NE(now, old);
  EXPECT_EQ(now->state, TASK_CREATED);
  EXPECT_LT(std::chrono::system_clock::now() - now->create_time, 100s);
}

TEST_F(TaskTable, AStateMayMoveInAnyDirectionAndWakesEveryWaiter) {
  plugin_task task;
  const auto wait = [&] { return task.wait_for(TASK_MIRROR_STARTED); };
  std::future<bool> waiters[] = {std::async(std::launch::async, wait),
                                 std::async(std::launch::async, wait)};
  wait_until("not both wait", [&] { return sleepers(&task.cond, sizeof task.cond) == 2; });
  task.set_state(TASK_MIRROR_STARTED);
  for (auto& waiter : waiters) {
    EXPECT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
  }
  task.set_state(TASK_DEPART_STARTED);
  task.set_state(TASK_MIRROR_DONE);
  EXPECT_TRUE(task.wait_for(TASK_MIRROR_DONE));
}

}  // namespace
}  // namespace vexo::test
