// The eight handlers: verdict, state, log lines; and who waits for whom.

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using Handlers = service;

constexpr std::chrono::milliseconds kStillBlocked{300};
constexpr char kGuid[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
constexpr char kNaa[] = "60014051a2b3c4dd5e6fd7a8bd9c0dde";

constexpr auto kNoTask = std::optional<task_state>();

log_line info(const std::string& text) { return {6, "scsi_plugin:plugin_server_ctrl:" + text, 0}; }
log_line error(const std::string& text) { return {3, "scsi_plugin:plugin_server_ctrl:" + text, 0}; }

// One request, the state of its task before and after, and everything it logs.
struct handler_case {
  std::variant<LunCmd, PluginCmd> request;
  std::optional<task_state> before;
  bool success;
  std::optional<task_state> after;
  std::vector<log_line> log;
};

class HandlerCases : public service {
 protected:
  void run(const std::string& key, const std::vector<handler_case>& cases) {
    for (std::size_t i = 0; i < cases.size(); ++i) {
      SCOPED_TRACE("case " + std::to_string(i));
      const handler_case& c = cases[i];
      {
        const mutex_lock lock(ctrl().task_mutex);
        ctrl().del_task(key);
      }
      if (c.before) {
        ASSERT_TRUE(ctrl().add_task(key));
        ctrl().find_task(key)->set_state(*c.before);
      }
      captured_syslog().clear();
      bool success = false;
      if (const auto* const lun_cmd = std::get_if<LunCmd>(&c.request)) {
        LunCmdResp response;
        ASSERT_TRUE(call->lun_op_status(*lun_cmd, kPatience, &response).ok());
        success = response.success();
        response.clear_success();
        EXPECT_EQ(response.ByteSizeLong(), 0U) << response.ShortDebugString();
      } else {
        PluginCmdResp response;
        const auto& plugin_cmd = std::get<PluginCmd>(c.request);
        ASSERT_TRUE(call->publish_status(plugin_cmd, kPatience, &response).ok());
        success = response.success();
        response.clear_success();
        EXPECT_EQ(response.ByteSizeLong(), 0U) << response.ShortDebugString();
      }
      EXPECT_EQ(success, c.success);
      EXPECT_EQ(captured_syslog().lines(), c.log);
      const auto task = ctrl().find_task(key);
      EXPECT_EQ(task != nullptr, c.after.has_value());
      if (task && c.after) {
        EXPECT_EQ(task->state, *c.after);
      }
    }
  }
};

TEST_F(HandlerCases, StartMirrorAndDepartRelationMoveFromAnyState) {
  const std::string start = "122:handle_cmd_start_mirror Start mirror [K]";
  const std::string depart = "182:handle_cmd_depart_relation Depart relation start [K]";
  std::vector<handler_case> cases = {
      {start_mirror("K"),
       kNoTask,
       false,
       kNoTask,
       {info(start), error("125:handle_cmd_start_mirror Task not exists: [K]")}},
      {depart_relation("K"),
       kNoTask,
       false,
       kNoTask,
       {info(depart), error("185:handle_cmd_depart_relation Task not exists: [K]")}},
  };
  for (const auto state :
       {TASK_CREATED, TASK_MIRROR_STARTED, TASK_MIRROR_DONE, TASK_DEPART_STARTED}) {
    cases.push_back({start_mirror("K"), state, true, TASK_MIRROR_STARTED, {info(start)}});
    cases.push_back({depart_relation("K"), state, true, TASK_DEPART_STARTED, {info(depart)}});
  }
  // The task is found by the LUN, whatever task_id says.
  LunCmd wrong_lun = start_mirror("other");
  wrong_lun.mutable_start_mirror_req()->set_task_id("K");
  cases.push_back({wrong_lun,
                   TASK_CREATED,
                   false,
                   TASK_CREATED,
                   {info("122:handle_cmd_start_mirror Start mirror [other]"),
                    error("125:handle_cmd_start_mirror Task not exists: [other]")}});
  run("K", cases);
}

TEST_F(HandlerCases, IsMirrorDoneOfAMirroredLun) {
  the_conf().set({{"K", 0xF}});
  const auto log = [](const log_line& second) {
    return std::vector<log_line>{info("144:handle_cmd_is_mirror_done Check mirror done [K]"),
                                 second};
  };
  const auto pass = log(info("166:handle_cmd_is_mirror_done Check mirror done pass [K]"));
  const auto mirroring = log(info("171:handle_cmd_is_mirror_done mirroring ... [K]"));
  const auto no_lun = log(error("153:handle_cmd_is_mirror_done Failed to get lun config [K]"));
  const LunCmd ask = is_mirror_done("K", LUN_TYPE_80);
  run("K",
      {
          {ask, kNoTask, false, kNoTask,
           log(error("147:handle_cmd_is_mirror_done Task not exists: [K]"))},
          {ask, TASK_CREATED, false, TASK_CREATED, mirroring},
          {ask, TASK_MIRROR_STARTED, false, TASK_MIRROR_STARTED, mirroring},
          {ask, TASK_MIRROR_DONE, true, TASK_MIRROR_DONE, pass},
          {ask, TASK_DEPART_STARTED, false, TASK_DEPART_STARTED, mirroring},
          {is_mirror_done("K", LUN_TYPE_NONE), TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, no_lun},
          {is_mirror_done("K", LUN_TYPE_83), TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, no_lun},
      });
}

TEST_F(HandlerCases, IsMirrorDoneOfALunWithoutAMirrorMovesTheTask) {
  the_conf().set({{kGuid, 0x103}});
  std::vector<handler_case> cases;
  for (const auto state :
       {TASK_CREATED, TASK_MIRROR_STARTED, TASK_MIRROR_DONE, TASK_DEPART_STARTED}) {
    cases.push_back(
        {is_mirror_done(kNaa, LUN_TYPE_83),
         state,
         true,
         TASK_MIRROR_DONE,
         {info(std::string("144:handle_cmd_is_mirror_done Check mirror done [") + kNaa + "]"),
          info(std::string("160:handle_cmd_is_mirror_done Check mirror done skip (BLUN / "
                           "Replication) [") +
               kNaa + "]")}});
  }
  run(kNaa, cases);
}

TEST_F(HandlerCases, IsMirrorDoneWithoutAConfiguration) {
  the_conf().fail_loads(true);
  run("K", {{is_mirror_done("K", LUN_TYPE_80),
             TASK_MIRROR_DONE,
             false,
             TASK_MIRROR_DONE,
             {info("144:handle_cmd_is_mirror_done Check mirror done [K]"),
              {3, "scsi_plugin:plugin_utils:20:GetLunConfByFunc Failed to get config", 0},
              error("153:handle_cmd_is_mirror_done Failed to get lun config [K]")}}});
}

TEST_F(HandlerCases, IsLunSupportTellsPassFromFail) {
  the_conf().set({{kGuid, 0xF}, {"scratch", 0x7}});
  const auto log = [](const std::string& lun, const std::string& verdict) {
    return std::vector<log_line>{
        info("104:handle_cmd_is_lun_support Check lun support [" + lun + "]"),
        info(verdict + " [" + lun + "]")};
  };
  const std::string pass = "108:handle_cmd_is_lun_support Check lun support pass";
  const std::string fail = "111:handle_cmd_is_lun_support Check lun support failed";
  run("K",
      {
          {is_lun_support(kGuid, LUN_TYPE_80), kNoTask, true, kNoTask, log(kGuid, pass)},
          {is_lun_support(kNaa, LUN_TYPE_83), kNoTask, true, kNoTask, log(kNaa, pass)},
          {is_lun_support(kGuid, LUN_TYPE_NONE), kNoTask, false, kNoTask, log(kGuid, fail)},
          {is_lun_support("scratch", LUN_TYPE_80), kNoTask, false, kNoTask, log("scratch", fail)},
          {is_lun_support("none", LUN_TYPE_80), kNoTask, false, kNoTask, log("none", fail)},
      });
}

TEST_F(HandlerCases, MirrorDoneNeedsAStartedMirror) {
  const log_line first = info("234:handle_cmd_mirror_done Mirror done [K]");
  const log_line failed = error("247:handle_cmd_mirror_done Mirror done failed [K]");
  const PluginCmd tell = mirror_done("K");
  run("K", {
               {tell,
                kNoTask,
                false,
                kNoTask,
                {first, error("237:handle_cmd_mirror_done Task not exists: [K]")}},
               {tell, TASK_CREATED, false, TASK_CREATED, {first, failed}},
               {tell,
                TASK_MIRROR_STARTED,
                true,
                TASK_MIRROR_DONE,
                {first, info("244:handle_cmd_mirror_done Mirror done success [K]")}},
               {tell, TASK_MIRROR_DONE, false, TASK_MIRROR_DONE, {first, failed}},
               {tell, TASK_DEPART_STARTED, false, TASK_DEPART_STARTED, {first, failed}},
           });
}

TEST_F(HandlerCases, WaitForDepartThatCameAlreadyDoesNotWait) {
  const log_line first = info("255:handle_cmd_wait_for_depart Wait for depart relation [K]");
  run("K",
      {
          {wait_for_depart("K"),
           kNoTask,
           false,
           kNoTask,
           {first, error("258:handle_cmd_wait_for_depart Task not exists: [K]")}},
          {wait_for_depart("K"),
           TASK_DEPART_STARTED,
           true,
           TASK_DEPART_STARTED,
           {first, info("264:handle_cmd_wait_for_depart Wait for depart relation success [K]")}},
      });
}

TEST_F(HandlerCases, DepartDoneAcknowledgesWhateverIsGone) {
  const log_line first = info("275:handle_cmd_depart_done Depart relation done [K]");
  run("K", {
               {depart_done("K"),
                kNoTask,
                true,
                kNoTask,
                {first, error("278:handle_cmd_depart_done Task not exists: [K]")}},
               {depart_done("K"), TASK_CREATED, true, kNoTask, {first}},
               {depart_done("K"), TASK_DEPART_STARTED, true, kNoTask, {first}},
           });
}

TEST_F(HandlerCases, InitSnapshotIsRefusedWithoutHostsAndWhileItsTaskLives) {
  run("K", {{init_snapshot("K"),
             kNoTask,
             false,
             kNoTask,
             {info("199:handle_cmd_init_snapshot Plugin list is empty, skip notify plugin")}}});
  const auto host = subscribe("esx");
  run("K", {{init_snapshot("K"),
             TASK_MIRROR_STARTED,
             false,
             TASK_MIRROR_STARTED,
             {info("208:handle_cmd_init_snapshot Init snapshots broadcast [K]"),
              error("211:handle_cmd_init_snapshot Init snasphot failed due to task is in progress: "
                    "[K]")}}});
  EXPECT_EQ(host->cmds_waiting(), 0U);
}

TEST_F(Handlers, CommandsThatNoneHandlesAreCancelled) {
  std::vector<LunCmd> lun_cmds(6);
  lun_cmds[1].mutable_create_mapped_target_req();
  lun_cmds[2].mutable_delete_lun_req();
  lun_cmds[3].mutable_start_tp_task_req();
  lun_cmds[4].mutable_restore_lun_req();
  lun_cmds[5].mutable_init_snapshot_ready_req();
  for (const auto& cmd : lun_cmds) {
    LunCmdResp response;
    const auto status = call->lun_op_status(cmd, kPatience, &response);
    EXPECT_EQ(status.error_code(), grpc::CANCELLED) << cmd.ShortDebugString();
    EXPECT_EQ(status.error_message(), "");
  }
  PluginCmdResp response;
  EXPECT_EQ(call->publish_status(PluginCmd(), kPatience, &response).error_code(), grpc::CANCELLED);
  EXPECT_TRUE(captured_syslog().lines().empty());
}

TEST_F(Handlers, InitSnapshotAnnouncesTheCommandUnderItsTask) {
  const auto one = subscribe("one");
  const auto two = subscribe("two");
  PluginCmd request = init_snapshot("K");
  request.set_cmd_sn(42);
  request.set_qel_sn("Q1");
  request.set_task_id("what the caller says is replaced");
  request.mutable_init_snapshot_req()->set_dst_lun_uuid("dst");
  PluginCmdResp response;
  auto publish = std::async(std::launch::async, [&] {
    return caller(dial()).publish_status(request, kPatience, &response);
  });
  PluginCmd announced = request;
  announced.set_task_id("K");
  for (const auto& host : {one.get(), two.get()}) {
    const auto cmd = host->next_cmd();
    ASSERT_TRUE(cmd);
    EXPECT_EQ(cmd->SerializeAsString(), announced.SerializeAsString());
  }
  EXPECT_TRUE(call->lun_op(start_mirror("K")));
  ASSERT_TRUE(publish.get().ok());
  EXPECT_TRUE(response.success());
  EXPECT_EQ(response.init_snapshot_resp().task_id(), "K");
  EXPECT_EQ(response.cmd_sn(), 0U);
  ASSERT_TRUE(ctrl().find_task("K"));
  EXPECT_EQ(captured_syslog().count("220:handle_cmd_init_snapshot Init snapshots success(start "
                                    "mirror) [K]"),
            1U);
}

// The task is looked up after the broadcast. Somebody may have ended the hand-shake by then.
TEST_F(Handlers, InitSnapshotFailsAtOnceWhenItsTaskIsGoneAfterTheBroadcast) {
  const auto slow = subscribe("slow");
  auto stalled = stall("slow");
  auto publish =
      std::async(std::launch::async, [&] { return caller(dial()).publish(init_snapshot("K")); });
  wait_until_registry_is_held();
  EXPECT_TRUE(call->publish(depart_done("K")));
  stalled.unlock();
  EXPECT_FALSE(publish.get());
  EXPECT_EQ(captured_syslog().count("Init snapshots failed [K]"), 1U);
}

TEST_F(Handlers, DepartDoneGoesToTheSubscriberWithoutAnIdAndToNobodyElse) {
  const auto named = subscribe("esx");
  const auto unnamed = subscribe("");
  ASSERT_TRUE(ctrl().add_task("K"));
  PluginCmd done = depart_done("K");
  done.set_cmd_sn(7);
  done.mutable_depart_done_req()->set_result(-5);
  EXPECT_TRUE(call->publish(done));
  const auto cmd = unnamed->next_cmd();
  ASSERT_TRUE(cmd);
  EXPECT_EQ(cmd->SerializeAsString(), done.SerializeAsString());
  EXPECT_EQ(named->cmds_waiting(), 0U);
  EXPECT_EQ(ctrl().find_task("K"), nullptr);
}

// is_mirror_done holds task_mutex while it loads the configuration, however long that takes.
TEST_F(Handlers, ASlowConfigurationHoldsUpTheTaskTableAndNothingElse) {
  the_conf().set({{"K", 0xF}});
  for (const std::string key : {"K", "waits", "mirrored", "departing"}) {
    ASSERT_TRUE(ctrl().add_task(key));
  }
  ctrl().find_task("mirrored")->set_state(TASK_MIRROR_STARTED);
  ctrl().find_task("departing")->set_state(TASK_DEPART_STARTED);
  the_conf().hold_next_load();
  auto slow = std::async(std::launch::async,
                         [&] { return caller(dial()).lun_op(is_mirror_done("K", LUN_TYPE_80)); });
  the_conf().wait_until_held();

  LunCmdResp response;
  EXPECT_EQ(call->lun_op_status(start_mirror("waits"), kStillBlocked, &response).error_code(),
            grpc::DEADLINE_EXCEEDED);
  EXPECT_EQ(ctrl().find_task("waits")->state, TASK_CREATED);
  EXPECT_TRUE(call->publish(mirror_done("mirrored")));
  EXPECT_TRUE(call->publish(wait_for_depart("departing")));
  EXPECT_TRUE(call->lun_op(is_lun_support("K", LUN_TYPE_80)));
  EXPECT_EQ(call->list().list_size(), 0);

  the_conf().release_load();
  EXPECT_FALSE(slow.get());
  EXPECT_TRUE(ctrl().find_task("waits")->wait_for(TASK_MIRROR_STARTED));
}

}  // namespace
}  // namespace vexo::test
