// The host agent and a real file system, in use while it is frozen. Whatever happens to the agent,
// no write waits for longer than the limit and a second.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "plugin_agent.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kLimit = seconds(1);
constexpr milliseconds kLongestStall = kLimit + seconds(1);

class PluginAgentFreeze : public PluginAgent {
 protected:
  void SetUp() override {
    PluginAgent::SetUp();
    if (IsSkipped()) return;
    if (const auto reason = volume::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
    data = std::make_unique<volume>("/tmp/data");
    hooks = std::make_unique<hook_directory>();
    start_daemon();
  }

  void TearDown() override {
    data.reset();
    PluginAgent::TearDown();
  }

  std::unique_ptr<program> start_freezer(words options = {}) {
    words all = {"--fs", data->path(), "--max-freeze", "1"};
    all.insert(all.end(), options.begin(), options.end());
    return start_agent(all);
  }

  // Until the agent has reached the step, and hangs in it: it waits for a hook, for the daemon
  // (which is stopped then) or for the local caller.
  void go_to(const std::string& step) {
    const bool in_hook = step == "prepare" || step == "freeze" || step == "thaw";
    if (in_hook) hooks->block("10-a", step);
    if (step == "depart") hooks->block("10-a", "freeze");
    pending = std::async(std::launch::async, [this] {
      PluginCmdResp response;
      return call->publish_status(init_snapshot(kLun), seconds(5), &response).ok() &&
             response.success();
    });
    if (step == "prepare") {
      ASSERT_TRUE(hooks->wait_until_blocked());
      return;
    }
    ASSERT_TRUE(pending.get());
    if (step == "mirror") return;
    ASSERT_TRUE(call->publish(mirror_done(kLun)));
    if (step == "freeze") {
      ASSERT_TRUE(hooks->wait_until_blocked());
      return;
    }
    if (step == "depart") {
      ASSERT_TRUE(hooks->wait_until_blocked());
      ::kill(daemon->pid(), SIGSTOP);
      hooks->unblock();
      ASSERT_TRUE(data->wait_until_frozen());
      return;
    }
    ASSERT_TRUE(call->publish(wait_for_depart(kLun)));
    if (step == "hold") {
      ASSERT_TRUE(data->wait_until_frozen());
      return;
    }
    ASSERT_TRUE(call->publish(depart_done(kLun)));
    ASSERT_TRUE(hooks->wait_until_blocked());
  }

  // The daemon, and its tasks, as if nothing had been.
  void start_over() {
    hooks->unblock();
    ::kill(daemon->pid(), SIGCONT);
    if (pending.valid()) pending.wait();
    std::filesystem::remove(hooks->path() + "/.state/blocked");
  }

  void expect_a_whole_handshake(program& agent, std::size_t index) {
    ASSERT_TRUE(call->publish(depart_done(kLun)));  // what an earlier one left in the daemon
    while (!call->is_listed("host")) std::this_thread::yield();
    go_to_split(kLun);
    EXPECT_TRUE(data->wait_until_frozen());
    ASSERT_TRUE(call->publish(depart_done(kLun)));
    const auto verdict = record(agent, index);
    EXPECT_EQ(verdict.verdict(), "application-consistent") << verdict.reason();
    EXPECT_TRUE(data->wait_until_thawed());
  }

  std::unique_ptr<volume> data;
  std::unique_ptr<hook_directory> hooks;
  std::future<bool> pending;
};

constexpr const char* kSteps[] = {"prepare", "mirror", "freeze", "depart", "hold", "thaw"};

TEST_F(PluginAgentFreeze, KilledAtAnyStepTheHostIsThawedAtOnce) {
  hooks->add("10-a");
  for (const std::string step : kSteps) {
    SCOPED_TRACE(step);
    auto agent = start_freezer({"--hooks", hooks->path()});
    go_to(step);
    data->longest_stall();
    agent.reset();  // SIGKILL
    EXPECT_TRUE(data->wait_until_thawed());
    EXPECT_LT(data->longest_stall(), seconds(1));
    if (step == "thaw") {
      hooks->unblock();  // both the agent's and the guardian's
    }
    EXPECT_TRUE(hooks->wait_until_thawed("10-a"));
    start_over();
    agent = start_freezer({"--hooks", hooks->path()});
    expect_a_whole_handshake(*agent, 0);
    EXPECT_FALSE(hooks->is_frozen("10-a"));
  }
}

TEST_F(PluginAgentFreeze, StoppedAtAnyStepTheHostIsThawedAtTheLimit) {
  hooks->add("10-a");
  for (const std::string step : kSteps) {
    SCOPED_TRACE(step);
    const auto agent = start_freezer({"--hooks", hooks->path(), "--hook-timeout", "5"});
    data->longest_stall();
    go_to(step);
    agent->signal(SIGSTOP);
    if (step != "thaw") {
      std::this_thread::sleep_for(kLongestStall);
    }
    hooks->unblock();
    EXPECT_TRUE(data->wait_until_thawed());
    EXPECT_TRUE(hooks->wait_until_thawed("10-a"));
    agent->signal(SIGCONT);
    start_over();
    if (step == "prepare" || step == "mirror") {
      ASSERT_TRUE(call->publish(depart_done(kLun)));
      agent->signal(SIGTERM);
      EXPECT_EQ(agent->wait(), 0) << agent->err();
      continue;
    }
    const auto verdict = record(*agent);
    EXPECT_EQ(verdict.verdict(), step == "thaw" ? "application-consistent" : "failed");
    EXPECT_LT(data->longest_stall(), kLongestStall);
    expect_a_whole_handshake(*agent, 1);
    EXPECT_FALSE(hooks->is_frozen("10-a"));
    leave(*agent);
  }
}

TEST_F(PluginAgentFreeze, ThawsAtTheLimitWhenTheSplitTakesLonger) {
  const auto agent = start_freezer();
  go_to_split(kLun);
  const auto verdict = record(*agent);
  EXPECT_EQ(verdict.verdict(), "failed");
  EXPECT_EQ(verdict.reason(), "the host was thawed at the limit of 1 s");
  EXPECT_GE(verdict.frozen_ms(), kLimit.count());
  EXPECT_LT(data->longest_stall(), kLongestStall);
}

TEST_F(PluginAgentFreeze, ThawsWhenItsGuardianIsKilled) {
  const auto agent = start_freezer();
  go_to("hold");
  const pid_t guardian = guardian_of(agent->pid());
  ASSERT_GT(guardian, 0);
  std::ifstream status("/proc/" + std::to_string(guardian) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("VmLck:")) continue;
  ::kill(guardian, SIGKILL);
  EXPECT_EQ(record(*agent).reason(), "the guardian has died");
  EXPECT_TRUE(data->wait_until_thawed());
  EXPECT_LT(data->longest_stall(), kLimit);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which lock no memory
  EXPECT_NE(line, "VmLck:\t       0 kB");
#endif
}

TEST_F(PluginAgentFreeze, ANewAgentThawsWhatAgentAndGuardianCouldNot) {
  hooks->add("10-a");
  auto agent = start_freezer({"--hooks", hooks->path()});
  go_to("hold");
  const pid_t guardian = guardian_of(agent->pid());
  ASSERT_GT(guardian, 0);
  ::kill(guardian, SIGSTOP);
  agent.reset();
  ::kill(guardian, SIGKILL);
  while (::kill(guardian, 0) == 0 && std::ifstream("/proc/" + std::to_string(guardian) + "/fd/0"))
    std::this_thread::yield();
  EXPECT_TRUE(std::filesystem::exists("/run/plugin_agent/frozen"));
  EXPECT_TRUE(data->wait_until_frozen());
  const auto thawed = run({PLUGIN_AGENT, "--thaw-and-exit"});
  EXPECT_EQ(thawed.status, 0);
  EXPECT_NE(thawed.err.find(data->path() + " was left frozen"), std::string::npos) << thawed.err;
  EXPECT_TRUE(data->wait_until_thawed());
  EXPECT_FALSE(hooks->is_frozen("10-a"));
  EXPECT_FALSE(std::filesystem::exists("/run/plugin_agent/frozen"));
}

TEST_F(PluginAgentFreeze, DoesNotCallAFreezeItsOwnThatIsNot) {
  const auto agent = start_freezer();
  {
    SCOPED_TRACE("frozen by somebody else");
    ASSERT_EQ(data->freeze(), 0);
    ASSERT_TRUE(announce(kLun));
    ASSERT_TRUE(call->publish(mirror_done(kLun)));
    const auto verdict = record(*agent);
    EXPECT_EQ(verdict.verdict(), "failed");
    EXPECT_NE(verdict.reason().find("somebody else has frozen it"), std::string::npos);
    EXPECT_EQ(data->thaw(), 0) << "not ours to thaw";
    ASSERT_TRUE(call->publish(depart_done(kLun)));
  }
  {
    SCOPED_TRACE("thawed by somebody else");
    go_to_split(kLun);
    EXPECT_EQ(data->thaw(), 0);
    ASSERT_TRUE(call->publish(depart_done(kLun)));
    EXPECT_EQ(record(*agent, 1).reason(), "somebody else has thawed " + data->path());
  }
}

TEST_F(PluginAgentFreeze, RefusesAPathThatNothingIsMountedAt) {
  const std::string unmounted = data->path() + "/directory";
  std::filesystem::create_directory(unmounted);
  const auto agent = start_agent({"--fs", unmounted});
  ASSERT_TRUE(announce(kLun));
  ASSERT_TRUE(call->publish(mirror_done(kLun)));
  EXPECT_NE(record(*agent).reason().find("nothing is mounted there"), std::string::npos);
  leave(*agent);
}

TEST_F(PluginAgentFreeze, TheReadyHookFreezesWhatItsFileNames) {
  std::filesystem::create_directories("/tmp/ready");
  std::filesystem::copy_file(PROJECT_SOURCE_DIR "/tools/plugin_agent/hooks/90-fsfreeze",
                             "/tmp/ready/90-fsfreeze",
                             std::filesystem::copy_options::overwrite_existing);
  std::ofstream("/tmp/ready.conf") << "# data\n" << data->path() << "\n";
  ::setenv("FSFREEZE_CONF", "/tmp/ready.conf", 1);
  auto agent = start_agent({"--hooks", "/tmp/ready", "--max-freeze", "5"});
  go_to_split(kLun);
  EXPECT_TRUE(data->wait_until_frozen());
  ASSERT_TRUE(call->publish(depart_done(kLun)));
  const auto verdict = record(*agent);
  EXPECT_EQ(verdict.verdict(), "application-consistent") << verdict.reason();
  EXPECT_TRUE(data->wait_until_thawed());
  go_to_split(kLun);
  EXPECT_TRUE(data->wait_until_frozen());
  agent.reset();  // SIGKILL
  EXPECT_TRUE(data->wait_until_thawed());
  ::unsetenv("FSFREEZE_CONF");
}

// One lies in an image on the other, and can only come to rest while that one still takes writes.
TEST_F(PluginAgentFreeze, FreezesWhatWasMountedLastFirst) {
  const volume inner(data->path() + "/inner");
  const auto agent = start_freezer({"--fs", inner.path()});
  go_to_split(kLun);
  EXPECT_TRUE(data->wait_until_frozen());
  ASSERT_TRUE(call->publish(depart_done(kLun)));
  const auto verdict = record(*agent);
  EXPECT_EQ(verdict.verdict(), "filesystem-consistent") << verdict.reason();
  EXPECT_LT(verdict.frozen_ms(), kLimit.count());
  leave(*agent);
}

TEST_F(PluginAgentFreeze, ALogOnTheFrozenFileSystemIsWrittenAfterwards) {
  const std::string file = data->path() + "/log";
  program shell({"sh", "-c",
                 "exec " PLUGIN_AGENT " --appliance 127.0.0.1 --plugin-id host --poll 0.05 --lun " +
                     std::string(kLun) + " --fs " + data->path() + " --verbose 2> " + file});
  while (!call->is_listed("host")) std::this_thread::yield();
  whole_handshake(kLun);
  EXPECT_TRUE(data->wait_until_thawed());
  EXPECT_LT(data->longest_stall(), kLimit);
  shell.signal(SIGTERM);
  EXPECT_EQ(shell.wait(), 0);
  std::ifstream written(file);
  std::string line;
  while (std::getline(written, line) && !line.starts_with('{')) continue;
  EXPECT_NE(line.find("filesystem-consistent"), std::string::npos) << line;
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }
