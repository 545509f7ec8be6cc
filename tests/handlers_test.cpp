// The eight handlers: their verdicts, state changes, log lines and locks.

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;

constexpr char kGuid[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
constexpr char kNaa[] = "60014051a2b3c4dd5e6fd7a8bd9c0dde";

constexpr task_state kStates[] = {TASK_CREATED, TASK_MIRROR_STARTED, TASK_MIRROR_DONE,
                                  TASK_DEPART_STARTED};
constexpr auto kNoTask = std::optional<task_state>();

// One request, the state of its task before and after, and the numbers of all lines it logs.
struct handler_case {
  std::variant<LunCmd, PluginCmd> request;
  std::optional<task_state> before;
  bool success;
  std::optional<task_state> after;
  std::vector<int> log;
};

class Handlers : public service {
 protected:
  // Runs each case with a new task under `key`, or without a task. Every line logged names `key`.
  void run(const std::string& key, const std::vector<handler_case>& cases) {
    for (const auto& c : cases) {
      std::visit([&](const auto& request) { run_one(key, c, request); }, c.request);
    }
  }

  template <typename Request>
  void run_one(const std::string& key, const handler_case& c, const Request& request) {
    SCOPED_TRACE(request.ShortDebugString() +
                 (c.before ? " from state " + std::to_string(*c.before) : " without a task"));
    set_task(key, c.before);
    captured_syslog().clear();
    // The first line is logged before the handler changes anything, all others after. The LunOp
    // handlers of tasks hold task_mutex from the first line on, also while the configuration is
    // loaded; the others log and load without a registry lock.
    const auto* const lun_cmd = std::get_if<LunCmd>(&c.request);
    const bool locks = lun_cmd && !lun_cmd->has_is_lun_support_req();
    const auto look_at_locks = [locks] {
      EXPECT_EQ(is_held(ctrl().task_mutex), locks);
      EXPECT_FALSE(is_held(ctrl().client_mutex));
    };
    the_conf().in_next_load(look_at_locks);
    std::size_t lines = 0;
    const auto looking = captured_syslog().watch([&](const log_line& line) {
      EXPECT_EQ(state_of(key), lines++ == 0 ? c.before : c.after) << line;
      look_at_locks();
    });
    auto response = call->ask(request);
    EXPECT_EQ(response.success(), c.success);
    response.clear_success();
    EXPECT_EQ(response.ByteSizeLong(), 0U);
    EXPECT_EQ(state_of(key), c.after);
    std::vector<log_line> expected;
    for (const int number : c.log) expected.push_back(line(number, key));
    EXPECT_EQ(captured_syslog().lines(), expected);
  }

  // The task in a new state; or no task.
  static void set_task(const std::string& key, std::optional<task_state> state) {
    {
      const mutex_lock lock(ctrl().task_mutex);
      ctrl().del_task(key);
    }
    if (!state) return;
    ASSERT_TRUE(ctrl().add_task(key));
    ctrl().find_task(key)->set_state(*state);
  }
  static std::optional<task_state> state_of(const std::string& key) {
    const auto task = ctrl().find_task(key);
    return task ? std::optional(static_cast<task_state>(task->state.load())) : std::nullopt;
  }

  // init_snapshot, from another thread and over a connection of its own.
  std::future<bool> announce(const std::string& key) const {
    return std::async(std::launch::async,
                      [this, key] { return caller(dial()).publish(init_snapshot(key)); });
  }
};

TEST_F(Handlers, StartMirrorAndDepartRelationMoveFromAnyState) {
  std::vector<handler_case> cases = {
      {start_mirror("K"), kNoTask, false, kNoTask, {122, 125}},
      {depart_relation("K"), kNoTask, false, kNoTask, {182, 185}},
  };
  for (const auto state : kStates) {
    cases.push_back({start_mirror("K"), state, true, TASK_MIRROR_STARTED, {122}});
    cases.push_back({depart_relation("K"), state, true, TASK_DEPART_STARTED, {182}});
  }
  run("K", cases);
  // The task is found by the LUN, whatever task_id says.
  set_task("K", TASK_CREATED);
  LunCmd wrong_lun = start_mirror("other");
  wrong_lun.mutable_start_mirror_req()->set_task_id("K");
  run("other", {{wrong_lun, kNoTask, false, kNoTask, {122, 125}}});
  EXPECT_EQ(state_of("K"), TASK_CREATED);
}

TEST_F(Handlers, IsMirrorDoneAndIsLunSupport) {
  the_conf().set({{"K", 0xF}, {kGuid, 0x103}});
  const LunCmd ask = is_mirror_done("K", LUN_TYPE_80);
  run("K", {
               {ask, kNoTask, false, kNoTask, {144, 147}},
               {ask, TASK_CREATED, false, TASK_CREATED, {144, 171}},
               {ask, TASK_MIRROR_STARTED, false, TASK_MIRROR_STARTED, {144, 171}},
               {ask, TASK_MIRROR_DONE, true, TASK_MIRROR_DONE, {144, 166}},
               {ask, TASK_DEPART_STARTED, false, TASK_DEPART_STARTED, {144, 171}},
               {is_lun_support("K", LUN_TYPE_80), kNoTask, true, kNoTask, {104, 108}},
               {is_lun_support("K", LUN_TYPE_83), kNoTask, false, kNoTask, {104, 111}},
           });
  for (const auto type : {LUN_TYPE_NONE, LUN_TYPE_83}) {
    const LunCmd unknown = is_mirror_done("K", type);
    run("K", {{unknown, TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, {144, 153}}});
  }
  // On a LUN that needs no mirror the question moves the task.
  for (const auto state : kStates) {
    run(kNaa, {{is_mirror_done(kNaa, LUN_TYPE_83), state, true, TASK_MIRROR_DONE, {144, 160}}});
  }
  the_conf().fails = true;
  run("K", {{ask, TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, {144, 20, 153}}});
}

TEST_F(Handlers, MirrorDoneWaitForDepartAndDepartDone) {
  const PluginCmd tell = mirror_done("K");
  run("K", {
               {tell, kNoTask, false, kNoTask, {234, 237}},
               {tell, TASK_CREATED, false, TASK_CREATED, {234, 247}},
               {tell, TASK_MIRROR_STARTED, true, TASK_MIRROR_DONE, {234, 244}},
               {tell, TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, {234, 247}},
               {tell, TASK_DEPART_STARTED, false, TASK_DEPART_STARTED, {234, 247}},
               {wait_for_depart("K"), kNoTask, false, kNoTask, {255, 258}},
               {wait_for_depart("K"), TASK_DEPART_STARTED, true, TASK_DEPART_STARTED, {255, 264}},
               {depart_done("K"), kNoTask, true, kNoTask, {275, 278}},
               {depart_done("K"), TASK_CREATED, true, kNoTask, {275}},
               {depart_done("K"), TASK_DEPART_STARTED, true, kNoTask, {275}},
           });
}

TEST_F(Handlers, InitSnapshotIsRefusedWithoutHostsAndWhileItsTaskLives) {
  run("K", {{init_snapshot("K"), kNoTask, false, kNoTask, {199}}});
  const auto host = subscribe("esx");
  for (const auto state : kStates) {
    run("K", {{init_snapshot("K"), state, false, state, {208, 211}}});
  }
  EXPECT_EQ(host->cmds_waiting(), 0U);
}

// Handlers that read a state do not take the task's mutex, so they do not wait for its holder.
TEST_F(Handlers, AStateIsReadWhileItsTaskIsLocked) {
  the_conf().set({{"K", 0xF}});
  ASSERT_TRUE(ctrl().add_task("K"));
  const std::lock_guard<std::mutex> held(ctrl().find_task("K")->mutex);
  EXPECT_FALSE(call->lun_op(is_mirror_done("K", LUN_TYPE_80)));
  EXPECT_FALSE(call->publish(mirror_done("K")));
}

TEST_F(Handlers, InitSnapshotAnnouncesTheCommandUnderItsTask) {
  const auto one = subscribe("one");
  const auto two = subscribe("two");
  PluginCmd request = init_snapshot("K");
  request.set_cmd_sn(42);
  request.set_qel_sn("Q1");
  request.set_task_id("what the caller says is replaced");
  request.mutable_init_snapshot_req()->set_dst_lun_uuid("dst");
  const auto looking = captured_syslog().watch([](const log_line& logged) {
    EXPECT_EQ(state_of("K").has_value(), logged != line(208, "K")) << logged;
    EXPECT_TRUE(logged != line(37, "one", "127.0.0.1") || is_held(ctrl().client_mutex));
  });
  auto publish = std::async(std::launch::async, [&] { return caller(dial()).ask(request); });
  PluginCmd announced = request;
  announced.set_task_id("K");
  for (const auto& host : {one.get(), two.get()}) {
    EXPECT_EQ(host->next_cmd().SerializeAsString(), announced.SerializeAsString());
  }
  EXPECT_TRUE(call->lun_op(start_mirror("K")));
  const PluginCmdResp response = publish.get();
  EXPECT_TRUE(response.success());
  EXPECT_EQ(response.init_snapshot_resp().task_id(), "K");
  EXPECT_EQ(response.cmd_sn(), 0U);
  EXPECT_EQ(state_of("K"), TASK_MIRROR_STARTED);
  for (const auto& logged : {line(208, "K"), line(37, "one", "127.0.0.1"), line(220, "K")}) {
    EXPECT_EQ(captured_syslog().count(logged), 1U) << logged;
  }
}

// The task is looked up after the broadcast. Somebody may have ended the handshake by then.
TEST_F(Handlers, InitSnapshotFailsAtOnceWhenItsTaskIsGoneAfterTheBroadcast) {
  const auto slow = subscribe("slow");
  auto stalled = stall("slow");
  auto publish = announce("K");
  wait_until_needed(stalled);
  EXPECT_TRUE(call->publish(depart_done("K")));
  // A task that the next announcement has created under the same key stays.
  const auto looking = captured_syslog().watch([](const log_line& logged) {
    if (logged == line(224, "K")) ctrl().add_task("K");
  });
  stalled.unlock();
  EXPECT_FALSE(publish.get());
  EXPECT_EQ(state_of("K"), TASK_CREATED);
  EXPECT_EQ(captured_syslog().count(line(224, "K")), 1U);
}

TEST_F(Handlers, DepartDoneGoesToTheSubscriberWithoutAnIdAndToNobodyElse) {
  const auto named = subscribe("esx");
  const auto unnamed = subscribe("");
  ASSERT_TRUE(ctrl().add_task("K"));
  PluginCmd done = depart_done("K");
  done.set_cmd_sn(7);
  done.mutable_depart_done_req()->set_result(-5);
  // Pushed without a registry lock, and before the task is gone.
  const auto looking = captured_syslog().watch([](const log_line& logged) {
    EXPECT_EQ(state_of("K"), TASK_CREATED) << logged;
    EXPECT_FALSE(is_held(ctrl().task_mutex)) << logged;
    EXPECT_FALSE(is_held(ctrl().client_mutex)) << logged;
  });
  captured_syslog().clear();
  EXPECT_TRUE(call->publish(done));
  EXPECT_EQ(captured_syslog().lines(),
            (std::vector<log_line>{line(275, "K"), line(37, "", "127.0.0.1")}));
  EXPECT_EQ(unnamed->next_cmd().SerializeAsString(), done.SerializeAsString());
  EXPECT_EQ(named->cmds_waiting(), 0U);
  EXPECT_EQ(state_of("K"), kNoTask);
}

}  // namespace
}  // namespace vexo::test
