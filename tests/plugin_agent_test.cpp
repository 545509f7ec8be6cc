// The host agent as a process beside the real daemon. What it does with real file systems stands in
// plugin_agent_freeze_test.

#include "plugin_agent.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

namespace vexo::test {
namespace {

using namespace scsiplugin;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST_F(PluginAgent, SaysWhatIsWrongWithItsOptions) {
  const std::string lun = kLun;
  const std::vector<std::pair<words, std::string>> cases = {
      {{"--lun", lun}, "--appliance is required"},
      {{"--appliance", "nas"}, "--lun is required"},
      {{"--appliance", "[::1]", "--lun", lun}, "IPv4 peers only"},
      {{"--appliance", "unix:///tmp/s", "--lun", lun}, "IPv4 peers only"},
      {{"--appliance", "nas:70000", "--lun", lun}, "port"},
      {{"--appliance", "nas", "--lun", lun, "--max-freeze", "61"}, "--max-freeze"},
      {{"--appliance", "nas", "--lun", lun, "--type", "os2"}, "--type"},
      {{"--appliance", "nas", "--lun", lun, "--fs", "data"}, "no absolute path"},
      {{"--appliance", "nas", "--lun", lun, "--fs", "/run"}, "lies on /run"},
      {{"--appliance", "nas", "--lun", lun, "--hooks", "/none"}, "/none cannot be read"},
      {{"--config", "/tmp/agent.toml"}, "INI was not able to parse"},
  };
  std::ofstream("/tmp/agent.toml") << "appliances = \"nas\"\n";
  for (const auto& [options, complaint] : cases) {
    words command = {PLUGIN_AGENT};
    command.insert(command.end(), options.begin(), options.end());
    const auto ended = run(command);
    EXPECT_EQ(ended.status, 2) << complaint;
    EXPECT_NE(ended.err.find(complaint), std::string::npos) << ended.err;
  }
}

TEST_F(PluginAgent, ReadsTheSameKeysFromAFile) {
  start_daemon();
  std::ofstream("/tmp/agent.toml") << "appliance = [\"127.0.0.1:3265\"]\nlun = [\"" << kOtherLun
                                   << "\", \"" << kLun << "\"]\nplugin-id = \"filed\"\n"
                                   << "type = \"windows\"\npoll = 0.05\n";
  program agent({PLUGIN_AGENT, "--config", "/tmp/agent.toml"});
  ASSERT_TRUE(agent.wait_for_err("subscribed to")) << agent.err();
  ASSERT_TRUE(call->is_listed("filed"));
  EXPECT_EQ(call->list().list(0).type(), PluginClient::WINDOWS);
  whole_handshake(kLun);
  EXPECT_EQ(record(agent).verdict(), "crash-consistent");
  leave(agent);
}

TEST_F(PluginAgent, RunsHooksInOrderAndUndoesInReverse) {
  start_daemon();
  hook_directory hooks;
  for (const char* name : {"20-b", "10-a"}) hooks.add(name);
  hooks.add("30-not-executable", 0644);
  hooks.add("40-everybodys", 0757);
  const auto agent = start_agent({"--hooks", hooks.path()});
  whole_handshake(kLun);
  const auto verdict = record(*agent);
  EXPECT_EQ(verdict.verdict(), "application-consistent") << verdict.reason();
  EXPECT_EQ(verdict.lun(), kLun);
  EXPECT_GT(verdict.frozen_ms(), 0U);
  EXPECT_EQ(verdict.hooks_size(), 6);
  EXPECT_EQ(hooks.take_runs(), (words{"10-a prepare", "20-b prepare", "10-a freeze", "20-b freeze",
                                      "20-b thaw", "10-a thaw"}));
  ASSERT_EQ(verdict.refused_hooks_size(), 2);
  EXPECT_NE(agent->err().find("30-not-executable is not run: it is not executable"),
            std::string::npos);
  EXPECT_NE(agent->err().find("40-everybodys is not run: everybody may write"), std::string::npos);
  leave(*agent);
  EXPECT_FALSE(call->is_listed("host"));
}

// Fails closed: the appliance is never told to split, and what was begun is undone.
TEST_F(PluginAgent, AHookThatFailsEndsTheHandshake) {
  start_daemon();
  struct failing {
    std::string phase;
    bool hangs;
    std::string reason;
    words undone;
  };
  const std::vector<failing> cases = {
      {"prepare", false, "prepare hook 20-b exited with 3", {}},
      {"prepare", true, "prepare hook 20-b took too long", {}},
      {"freeze", false, "freeze hook 20-b exited with 3", {"20-b thaw", "10-a thaw"}},
      {"freeze", true, "freeze hook 20-b took longer than 0.3 s", {"20-b thaw", "10-a thaw"}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.reason);
    hook_directory hooks;
    for (const char* name : {"10-a", "20-b", "30-c"}) hooks.add(name);
    if (one.hangs) {
      hooks.block("20-b", one.phase);
    } else {
      hooks.fail("20-b", one.phase);
    }
    const auto agent = start_agent({"--hooks", hooks.path(), "--hook-timeout", "0.3"});
    log->clear();
    auto announced = std::async(std::launch::async, [&] {
      PluginCmdResp response;
      return call->publish_status(init_snapshot(kLun), seconds(2), &response).ok() &&
             response.success();
    });
    if (one.phase == "freeze") {
      ASSERT_TRUE(announced.get());
      ASSERT_TRUE(call->publish(mirror_done(kLun)));
    }
    const auto verdict = record(*agent);
    EXPECT_EQ(verdict.verdict(), "failed");
    EXPECT_EQ(verdict.reason(), one.reason);
    words runs = hooks.take_runs();
    const auto thaws = std::find_if(runs.begin(), runs.end(),
                                    [](const auto& run) { return run.ends_with("thaw"); });
    // What is left of a killed hook could freeze something later, so all are thawed once more then.
    ASSERT_GE(runs.end() - thaws, static_cast<std::ptrdiff_t>(one.undone.size()));
    EXPECT_TRUE(std::equal(one.undone.begin(), one.undone.end(), thaws));
    EXPECT_EQ(std::count(runs.begin(), runs.end(), "30-c thaw"), 0);
    EXPECT_FALSE(hooks.is_frozen("10-a"));
    EXPECT_EQ(log->count("Depart relation start"), 0U);
    leave(*agent);
    if (announced.valid()) announced.wait();
    start_daemon();  // which forgets the task
  }
}

TEST_F(PluginAgent, IgnoresLunsOfOtherHosts) {
  start_daemon();
  const auto agent = start_agent({});
  auto other = std::async(std::launch::async, [&] { return announce(kOtherLun); });
  EXPECT_TRUE(agent->wait_for_err(std::string("LUN ") + kOtherLun + ": not this host's"));
  EXPECT_EQ(log->count("Start mirror"), 0U);
  EXPECT_TRUE(call->lun_op(start_mirror(kOtherLun)));
  EXPECT_TRUE(other.get());
  whole_handshake(kLun);
  EXPECT_EQ(record(*agent).verdict(), "crash-consistent");
}

TEST_F(PluginAgent, FreezesOneLunAtATime) {
  start_daemon();
  hook_directory hooks;
  hooks.add("10-a");
  const auto agent = start_agent({"--hooks", hooks.path(), "--lun", "any"});
  ASSERT_TRUE(announce(kLun));
  ASSERT_TRUE(announce(kOtherLun));
  ASSERT_TRUE(call->publish(mirror_done(kLun)));
  ASSERT_TRUE(call->publish(mirror_done(kOtherLun)));
  auto other = std::async(std::launch::async, [&] {
    return call->publish(wait_for_depart(kOtherLun)) && call->publish(depart_done(kOtherLun));
  });
  EXPECT_TRUE(call->publish(wait_for_depart(kLun)));
  EXPECT_TRUE(call->publish(depart_done(kLun)));
  EXPECT_TRUE(other.get());
  for (const std::size_t index : {0, 1}) {
    EXPECT_EQ(record(*agent, index).verdict(), "application-consistent");
  }
  EXPECT_EQ(hooks.take_runs(), (words{"10-a prepare", "10-a prepare", "10-a freeze", "10-a thaw",
                                      "10-a freeze", "10-a thaw"}));
}

TEST_F(PluginAgent, TheSubscriberWithoutANameIsToldThatTheSplitIsOver) {
  start_daemon();
  for (const int result : {0, 7}) {
    const auto agent = start_agent({"--plugin-id", "", "--poll", "0.2"});
    go_to_split(kLun);
    auto done = depart_done(kLun);
    done.mutable_depart_done_req()->set_result(result);
    log->clear();
    ASSERT_TRUE(call->publish(done));
    const auto verdict = record(*agent);
    EXPECT_EQ(verdict.verdict(), result == 0 ? "crash-consistent" : "failed");
    EXPECT_EQ(verdict.reason(), result == 0 ? "" : "the appliance reports result 7 of the split");
    leave(*agent);
  }
}

TEST_F(PluginAgent, FinishesOrUndoesWhatItIsInWhenToldToStop) {
  start_daemon();
  hook_directory hooks;
  hooks.add("10-a");
  {
    SCOPED_TRACE("while the mirror is made");
    const auto agent = start_agent({"--hooks", hooks.path()});
    ASSERT_TRUE(announce(kLun));
    leave(*agent);
    EXPECT_EQ(record(*agent).reason(), "the agent was told to stop");
    ASSERT_TRUE(call->publish(depart_done(kLun)));
  }
  {
    SCOPED_TRACE("in a freeze hook");
    hooks.block("10-a", "freeze");
    const auto agent = start_agent({"--hooks", hooks.path()});
    ASSERT_TRUE(announce(kLun));
    ASSERT_TRUE(call->publish(mirror_done(kLun)));
    ASSERT_TRUE(hooks.wait_until_blocked());
    agent->signal(SIGTERM);
    ASSERT_TRUE(agent->wait_for_err("") && call->is_listed("host"));
    hooks.unblock();
    EXPECT_EQ(agent->wait(), 0);
    EXPECT_EQ(record(*agent).reason(), "the agent was told to stop");
    EXPECT_FALSE(hooks.is_frozen("10-a"));
    ASSERT_TRUE(call->publish(depart_done(kLun)));
  }
  for (const bool twice : {false, true}) {
    SCOPED_TRACE(twice ? "twice while the mirror is split" : "while the mirror is split");
    const auto agent = start_agent({"--hooks", hooks.path()});
    go_to_split(kLun);
    agent->signal(SIGTERM);
    if (twice) {
      // Two signals that come together count once.
      while (agent->wait(seconds(0)) == -1 && hooks.is_frozen("10-a")) {
        agent->signal(SIGTERM);
        std::this_thread::sleep_for(milliseconds(20));
      }
    } else {
      std::this_thread::sleep_for(milliseconds(200));  // polls go by, and nothing happens
      EXPECT_TRUE(hooks.is_frozen("10-a"));
    }
    ASSERT_TRUE(call->publish(depart_done(kLun)));
    if (!twice) {
      EXPECT_EQ(agent->wait(), 0);
    }
    EXPECT_EQ(record(*agent).verdict(), twice ? "failed" : "application-consistent");
    EXPECT_FALSE(hooks.is_frozen("10-a"));
  }
}

TEST_F(PluginAgent, ComesBackWhenTheDaemonIsStartedAnew) {
  start_daemon();
  hook_directory hooks;
  hooks.add("10-a");
  for (const std::string step : {"prepare", "mirror", "freeze", "hold", "thaw"}) {
    SCOPED_TRACE(step);
    const auto agent =
        start_agent({"--hooks", hooks.path(), "--max-freeze", "20", "--hook-timeout", "20"});
    const bool blocks = step == "prepare" || step == "freeze" || step == "thaw";
    if (blocks) hooks.block("10-a", step);
    std::future<bool> announced = std::async(std::launch::async, [&] {
      PluginCmdResp response;
      return call->publish_status(init_snapshot(kLun), seconds(20), &response).ok();
    });
    if (step != "prepare") {
      ASSERT_TRUE(announced.get());
    }
    if (step == "freeze" || step == "hold" || step == "thaw") {
      ASSERT_TRUE(call->publish(mirror_done(kLun)));
    }
    if (step == "hold" || step == "thaw") {
      ASSERT_TRUE(call->publish(wait_for_depart(kLun)));
    }
    if (step == "thaw") {
      ASSERT_TRUE(call->publish(depart_done(kLun)));
    }
    if (blocks) {
      ASSERT_TRUE(hooks.wait_until_blocked());
    }
    log->clear();
    daemon->kill();
    if (announced.valid()) announced.wait();
    start_daemon();
    hooks.unblock();
    ASSERT_TRUE(log->wait_for("Connected: Plugin ID=host IP=127.0.0.1")) << agent->err();
    const auto verdict = record(*agent);
    EXPECT_EQ(verdict.verdict(), step == "thaw" ? "application-consistent" : "failed");
    EXPECT_FALSE(hooks.is_frozen("10-a"));
    std::filesystem::remove(hooks.path() + "/.state/blocked");
    while (!call->is_listed("host")) std::this_thread::yield();
    whole_handshake(kLun);
    EXPECT_EQ(record(*agent, 1).verdict(), "application-consistent");
    leave(*agent);
  }
}

TEST_F(PluginAgent, TwoOfOneNameDoNotFightAtFullSpeed) {
  start_daemon();
  const auto first = start_agent({});
  const auto second = start_agent({});
  for (const auto& agent : {first.get(), second.get()}) {
    EXPECT_TRUE(agent->wait_for_err("another plugin subscribed as \"host\"")) << agent->err();
  }
  std::this_thread::sleep_for(seconds(4));
  // 1, 2 and 4 s and more of waiting, each.
  EXPECT_LE(log->count("Connected: Plugin ID=host"), 8U);
  leave(*first);
  leave(*second);
}

TEST_F(PluginAgent, WaitsForAnApplianceThatIsNotThere) {
  const auto agent = start_agent({"--appliance", "no-such-appliance.invalid"}, false);
  EXPECT_TRUE(agent->wait_for_err("not subscribed to 127.0.0.1:3265: UNAVAILABLE"));
  EXPECT_TRUE(agent->wait_for_err("no IPv4 address of no-such-appliance.invalid"));
  start_daemon();
  EXPECT_TRUE(agent->wait_for_err("subscribed to 127.0.0.1:3265 as \"host\""));
  leave(*agent);
  EXPECT_EQ(call->list().list_size(), 0);
}

// A daemon that has forgotten its first subscriber, as after an UnSubscribe that came between its
// registering of the stream and its waiting on it.
class forgetful_daemon : public PluginService::Service {
 public:
  grpc::Status Subscribe(grpc::ServerContext* context, const PluginClient* /*request*/,
                         grpc::ServerWriter<PluginCmd>* /*writer*/) override {
    ++subscriptions;
    while (!context->IsCancelled()) std::this_thread::sleep_for(milliseconds(5));
    return grpc::Status::OK;
  }
  grpc::Status PluginConnList(grpc::ServerContext* /*context*/,
                              const google::protobuf::Empty* /*request*/,
                              PluginClientList* response) override {
    if (subscriptions > 1) response->add_list()->set_plugin_id("host");
    return grpc::Status::OK;
  }

  std::atomic<int> subscriptions = 0;
};

TEST_F(PluginAgent, SubscribesAgainWhenItIsConnectedButNotListed) {
  forgetful_daemon service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(kTcpTarget, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  ASSERT_TRUE(server);
  auto agent = start_agent({});
  EXPECT_EQ(service.subscriptions, 2);
  EXPECT_NE(agent->err().find("does not list this host"), std::string::npos) << agent->err();
  agent.reset();
  server->Shutdown();
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }
