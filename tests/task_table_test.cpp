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
TEST_F(TaskTable, AnExpiredTaskOfAnyStateIsReplacedAndLogged) {
  ASSERT_TRUE(ctrl().add_task("K"));
  for (const auto state :
       {TASK_CREATED, TASK_MIRROR_STARTED, TASK_MIRROR_DONE, TASK_DEPART_STARTED}) {
    captured_syslog().clear();
    const auto old = ctrl().find_task("K");
    old->set_state(state);
    old->create_time -= 300s;
    EXPECT_TRUE(ctrl().add_task("K"));
    EXPECT_EQ(captured_syslog().lines(), std::vector{line(15, "K")});
    EXPECT_NE(ctrl().find_task("K"), old);
    EXPECT_EQ(ctrl().find_task("K")->state, TASK_CREATED);
  }
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
