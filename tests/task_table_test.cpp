// Tasks in the table: created, refused, expired, waited for, deleted.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "captured_syslog.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using namespace std::chrono_literals;
using TaskTable = service;

// The fuzz corpus of the controller checks the exact second, with a virtual clock.
TEST_F(TaskTable, AnIdIsRefusedUntilItsTaskExpiresByAgeAlone) {
  const struct {
    std::string key;
    std::chrono::nanoseconds age;
    bool replaced;
  } cases[] = {{"new", 0s, false},
               {"", 290s, false},
               {"made before the clock was set back", -1h, false},
               {"just old enough", 300s, true},
               {"old", 24h, true}};
  for (const auto& [key, age, replaced] : cases) {
    captured_syslog().clear();
    ASSERT_TRUE(ctrl().add_task(key));
    const auto old = ctrl().find_task(key);
    EXPECT_EQ(old->task_id, key);
    EXPECT_EQ(old->plugin_id, "");
    EXPECT_EQ(old->state, TASK_CREATED);
    old->set_state(TASK_DEPART_STARTED);
    old->create_time -= std::chrono::duration_cast<std::chrono::system_clock::duration>(age);
    EXPECT_EQ(ctrl().add_task(key), replaced) << key;
    const auto now = ctrl().find_task(key);
    EXPECT_EQ(now != old, replaced) << key;
    EXPECT_EQ(now->state, replaced ? TASK_CREATED : TASK_DEPART_STARTED) << key;
    EXPECT_EQ(captured_syslog().lines(),
              replaced ? std::vector{line(15, key)} : std::vector<log_line>())
        << key;
    EXPECT_TRUE(!replaced || std::chrono::system_clock::now() - now->create_time < 100s);
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
