// Hand-shakes as the table keeps them: created, refused, expired, waited for, deleted.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "captured_syslog.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using namespace std::chrono_literals;
using TaskTable = service;

TEST_F(TaskTable, ALiveIdIsRefusedQuietly) {
  for (const std::string key : {"K", ""}) {
    EXPECT_TRUE(ctrl().add_task(key));
    const auto task = ctrl().find_task(key);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->task_id, key);
    EXPECT_EQ(task->plugin_id, "");
    EXPECT_EQ(task->state, TASK_CREATED);
    EXPECT_FALSE(ctrl().add_task(key));
    EXPECT_EQ(ctrl().find_task(key), task);
  }
  EXPECT_TRUE(captured_syslog().lines().empty());
}

TEST_F(TaskTable, ExpiresByAgeAlone) {
  const struct {
    std::string key;
    std::chrono::nanoseconds age;
    bool replaced;
  } cases[] = {{"young", 290s, false},
               {"made before the clock was set back", -1h, false},
               {"just old enough", 300s, true},
               {"old", 24h, true}};
  for (const auto& [key, age, replaced] : cases) {
    captured_syslog().clear();
    ASSERT_TRUE(ctrl().add_task(key));
    const auto old = ctrl().find_task(key);
    old->set_state(TASK_DEPART_STARTED);
    old->create_time -= std::chrono::duration_cast<std::chrono::system_clock::duration>(age);
    EXPECT_EQ(ctrl().add_task(key), replaced) << key;
    const auto now = ctrl().find_task(key);
    EXPECT_EQ(now != old, replaced) << key;
    if (!replaced) {
      EXPECT_TRUE(captured_syslog().lines().empty());
      continue;
    }
    EXPECT_EQ(now->state, TASK_CREATED);
    EXPECT_LT(std::chrono::system_clock::now() - now->create_time, 100s);
    EXPECT_EQ(captured_syslog().lines(),
              (std::vector<log_line>{{3,
                                      "scsi_plugin:plugin_server_ctrl:15:add_task Task [" + key +
                                          "] has been expired! try to remove it and create a new "
                                          "one",
                                      0}}));
  }
}

TEST_F(TaskTable, AStateMayMoveInAnyDirectionAndWakesEveryWaiter) {
  plugin_task task;
  auto one = std::async(std::launch::async, [&] { return task.wait_for(TASK_MIRROR_STARTED); });
  auto two = std::async(std::launch::async, [&] { return task.wait_for(TASK_MIRROR_STARTED); });
  task.set_state(TASK_MIRROR_STARTED);
  EXPECT_TRUE(one.get());
  EXPECT_TRUE(two.get());
  task.set_state(TASK_DEPART_STARTED);
  task.set_state(TASK_MIRROR_DONE);
  EXPECT_TRUE(task.wait_for(TASK_MIRROR_DONE));
}

// One real minute: three waits that nobody ends, at once.
TEST_F(TaskTable, AWaitGivesUpAfterAMinute) {
  const auto host = subscribe("esx");
  ASSERT_TRUE(ctrl().add_task("deleted"));
  ASSERT_TRUE(ctrl().add_task("departing"));
  const auto begin = std::chrono::system_clock::now();
  const auto timed = [this, begin](const PluginCmd& request) {
    return std::async(std::launch::async, [this, begin, request] {
      const bool success = caller(dial()).publish(request);
      return std::pair(success, std::chrono::system_clock::now() - begin);
    });
  };
  auto unanswered = timed(init_snapshot("unanswered"));
  auto departing = timed(wait_for_depart("departing"));
  auto deleted = timed(wait_for_depart("deleted"));
  ASSERT_TRUE(captured_syslog().wait_for("Wait for depart relation [deleted]"));
  ASSERT_TRUE(host->next_cmd());

  // A task deleted under its waiter is simply never moved again.
  const auto held = ctrl().find_task("deleted");
  EXPECT_TRUE(call->publish(depart_done("deleted")));
  EXPECT_FALSE(call->lun_op(depart_relation("deleted")));
  EXPECT_FALSE(call->publish(init_snapshot("unanswered")));

  for (auto* const outcome : {&unanswered, &departing, &deleted}) {
    const auto [success, took] = outcome->get();
    EXPECT_FALSE(success);
    EXPECT_GE(took, 60s);
    EXPECT_LT(took, 60s + kPatience);
  }
  EXPECT_EQ(ctrl().find_task("unanswered"), nullptr);
  EXPECT_NE(ctrl().find_task("departing"), nullptr);
  EXPECT_FALSE(call->publish(mirror_done("unanswered")));
  EXPECT_EQ(captured_syslog().count("scsi_plugin:plugin_server_ctrl:224:handle_cmd_init_snapshot "
                                    "Init snapshots failed [unanswered]"),
            1U);
  EXPECT_EQ(captured_syslog().count("scsi_plugin:plugin_server_ctrl:267:handle_cmd_wait_for_depart "
                                    "Wait for depart relation failed [departing]"),
            1U);
}

}  // namespace
}  // namespace vexo::test
