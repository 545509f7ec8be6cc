// plugin_ctl snapshot: however it ends, the daemon is left without its hand-shake, and with
// everybody else's.

#include <atomic>
#include <csignal>
#include <future>
#include <optional>
#include <sstream>

#include "plugin_ctl.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;

// A host that does its part of one hand-shake, in a thread of its own, as far as it is asked to.
class host_plugin {
 public:
  host_plugin(std::unique_ptr<subscriber> stream, bool starts, bool departs)
      : stream_(std::move(stream)), thread_([this, starts, departs] { run(starts, departs); }) {}
  ~host_plugin() {
    stop_ = true;
    thread_.join();
  }
  host_plugin(const host_plugin&) = delete;
  host_plugin& operator=(const host_plugin&) = delete;

  void wait_until_announced() { announced_.get_future().wait(); }
  // What it was told about the split, when it was.
  std::optional<int> told() {
    const auto command = stream_->next_cmd();
    if (!command || !command->has_depart_done_req()) return std::nullopt;
    return command->depart_done_req().result();
  }

 private:
  void run(bool starts, bool departs) {
    caller call(connect(kTcpTarget));
    stream_->next_cmd();
    announced_.set_value();
    if (!starts || !call.lun_op(start_mirror(kLun))) return;
    while (departs && !stop_) {
      if (call.lun_op(is_mirror_done(kLun, LUN_TYPE_80))) {
        call.lun_op(depart_relation(kLun));
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  std::unique_ptr<subscriber> stream_;
  std::atomic<bool> stop_ = false;
  std::promise<void> announced_;
  std::thread thread_;
};

// The outcomes of the steps as -o json prints them, in one word each.
std::string outcomes(const std::string& json_lines) {
  const std::string key = R"("outcome":")";
  std::string all;
  std::istringstream lines(json_lines);
  for (std::string line; std::getline(lines, line);) {
    const auto begin = line.find(key) + key.size();
    if (!all.empty()) all += ' ';
    all += line.substr(begin, line.find('"', begin) - begin);
  }
  return all;
}

class PluginCtlSnapshot : public PluginCtl {
 protected:
  void SetUp() override {
    PluginCtl::SetUp();
    if (!IsSkipped()) start();
  }

  bool task_is_there() { return call->lun_op(start_mirror(kLun)); }

  static words snapshot(const words& more) {
    words line = command_line({"snapshot", "--p80", kLun, "-o", "json"});
    line.insert(line.end(), more.begin(), more.end());
    return line;
  }
};

enum class in { nothing, init_snapshot, mirror, wait_for_depart, split };

struct ending {
  std::string name;
  words options;
  bool host_starts;
  bool host_departs;
  in interrupted;
  std::string outcomes;
  int status;
  int told;
  std::string err;
};

void PrintTo(const ending& it, std::ostream* out) { *out << it.name; }

class Ends : public PluginCtlSnapshot, public testing::WithParamInterface<ending> {};

constexpr char kHang[] = "sleep 1000 & echo \"child $!.\"; wait";

const std::vector<ending> kEndings = {
    {"Well",
     {"--mirror", "true", "--split", "true"},
     true,
     true,
     in::nothing,
     "DONE DONE DONE DONE DONE DONE",
     0,
     0,
     ""},
    {"WellWithoutCommands",
     {},
     true,
     true,
     in::nothing,
     "DONE SKIPPED DONE DONE SKIPPED DONE",
     0,
     0,
     ""},
    {"FailingMirror",
     {"--mirror", "exit 7"},
     true,
     true,
     in::nothing,
     "DONE FAILED NOT_RUN NOT_RUN NOT_RUN DONE",
     4,
     7,
     "the command exited with 7"},
    {"FailingSplit",
     {"--split", "kill -KILL $$"},
     true,
     true,
     in::nothing,
     "DONE SKIPPED DONE DONE FAILED DONE",
     4,
     137,
     "ended by signal 9"},
    {"MissingMirrorCommand",
     {"--mirror", "/no/such/program"},
     true,
     true,
     in::nothing,
     "DONE FAILED NOT_RUN NOT_RUN NOT_RUN DONE",
     4,
     127,
     "exited with 127"},
    {"DeadlineBeforeAHostStarts",
     {"--timeout", "1.2"},
     false,
     false,
     in::nothing,
     "FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE",
     3,
     1,
     "DEADLINE_EXCEEDED"},
    {"DeadlineBeforeAHostDeparts",
     {"--timeout", "2"},
     true,
     false,
     in::nothing,
     "DONE SKIPPED DONE FAILED NOT_RUN DONE",
     3,
     1,
     "DEADLINE_EXCEEDED"},
    {"InterruptedInit",
     {},
     false,
     false,
     in::init_snapshot,
     "INTERRUPTED NOT_RUN NOT_RUN NOT_RUN NOT_RUN DONE",
     5,
     1,
     "begin the next snapshot"},
    {"InterruptedMirror",
     {"--mirror", kHang},
     true,
     true,
     in::mirror,
     "DONE INTERRUPTED NOT_RUN NOT_RUN NOT_RUN DONE",
     5,
     143,
     "the command was ended"},
    {"InterruptedWait",
     {},
     true,
     false,
     in::wait_for_depart,
     "DONE SKIPPED DONE INTERRUPTED NOT_RUN DONE",
     5,
     1,
     "a signal ended the wait"},
    {"InterruptedSplit",
     {"--split", kHang},
     true,
     true,
     in::split,
     "DONE SKIPPED DONE DONE INTERRUPTED DONE",
     5,
     143,
     "the command was ended"},
};

INSTANTIATE_TEST_SUITE_P(PluginCtlSnapshot, Ends, testing::ValuesIn(kEndings),
                         [](const auto& it) { return it.param.name; });

TEST_P(Ends, AndLeavesNoTaskBehind) {
  const ending& expected = GetParam();
  host_plugin host(subscribe(""), expected.host_starts, expected.host_departs);
  program tool(snapshot(expected.options));
  pid_t child = 0;
  switch (expected.interrupted) {
    case in::nothing:
      break;
    case in::init_snapshot:
      host.wait_until_announced();
      break;
    case in::wait_for_depart:
      ASSERT_TRUE(log->wait_for("Wait for depart relation ["));
      break;
    case in::mirror:
    case in::split: {
      ASSERT_TRUE(tool.wait_for_err("."));
      const std::string err = tool.err();
      child = std::stoi(err.substr(err.find("child ") + 6));
      EXPECT_EQ(kill(child, 0), 0);
    }
  }
  if (expected.interrupted != in::nothing) tool.signal(SIGINT);
  EXPECT_EQ(tool.wait(), expected.status);
  EXPECT_EQ(outcomes(tool.out()), expected.outcomes) << tool.out();
  EXPECT_NE(tool.err().find(expected.err), std::string::npos) << tool.err();
  EXPECT_EQ(host.told(), expected.told);
  EXPECT_FALSE(task_is_there());
  EXPECT_TRUE(child == 0 || kill(child, 0) != 0) << "the command's own child goes on";
}

TEST_F(PluginCtlSnapshot, LeavesATaskAloneThatIsNotItsOwn) {
  const auto host = subscribe("esx");
  auto somebody =
      std::async(std::launch::async, [&] { return call->publish(init_snapshot(kLun)); });
  ASSERT_TRUE(host->next_cmd());
  const ended_program refused = run(snapshot({}));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(outcomes(refused.out), "FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN");
  EXPECT_NE(refused.err.find("a hand-shake for this LUN is under way"), std::string::npos);
  EXPECT_TRUE(task_is_there());
  EXPECT_TRUE(somebody.get());
}

TEST_F(PluginCtlSnapshot, LeavesAloneWhatBeginsAfterSomebodyElseEndedItsOwn) {
  host_plugin host(subscribe("esx"), true, false);
  const std::string end_it = std::string(PLUGIN_CTL) + " publish depart-done " + kLun;
  const ended_program ended = run(snapshot({"--mirror", end_it}));
  EXPECT_EQ(ended.status, 1);
  EXPECT_EQ(outcomes(ended.out), "DONE DONE SKIPPED FAILED NOT_RUN NOT_RUN");
  EXPECT_NE(ended.err.find("somebody else ended this hand-shake"), std::string::npos) << ended.err;
  EXPECT_EQ(log->count("Depart relation done"), 1U);
}

// The host's question whether its mirror is done answers itself, so the local caller's report of it
// comes too late.
TEST_F(PluginCtlSnapshot, GoesOnWithALunThatNeedsNoMirror) {
  const auto host = subscribe("esx");
  program tool(command_line({"snapshot", "--p80", kReplicaLun, "-o", "json", "--mirror",
                             "until [ -e /tmp/departed ]; do sleep 0.01; done"}));
  ASSERT_TRUE(host->next_cmd());
  EXPECT_TRUE(call->lun_op(start_mirror(kReplicaLun)));
  ASSERT_TRUE(tool.wait_for_out("init_snapshot"));
  EXPECT_TRUE(call->lun_op(is_mirror_done(kReplicaLun, LUN_TYPE_80)));
  EXPECT_TRUE(call->lun_op(depart_relation(kReplicaLun)));
  EXPECT_EQ(run({"touch", "/tmp/departed"}).status, 0);
  EXPECT_EQ(tool.wait(), 0) << tool.err();
  EXPECT_EQ(outcomes(tool.out()), "DONE DONE SKIPPED DONE SKIPPED DONE");
}

TEST_F(PluginCtlSnapshot, ASignalInTheFirstMomentWaitsForTheRefusal) {
  const auto host = subscribe("esx");
  auto somebody =
      std::async(std::launch::async, [&] { return call->publish(init_snapshot(kLun)); });
  ASSERT_TRUE(host->next_cmd());
  for (int i = 0; i < 20; ++i) {
    program tool(snapshot({}));
    std::this_thread::sleep_for(std::chrono::milliseconds(i));
    tool.signal(SIGINT);
    const int status = tool.wait();
    EXPECT_TRUE(status == 1 || status == 5 || status == 128 + SIGINT) << status;
    EXPECT_EQ(log->count("Depart relation done"), 0U);
  }
  EXPECT_TRUE(task_is_there());
  EXPECT_TRUE(somebody.get());
}

// The daemon's own minute, after which it has removed the task itself.
TEST_F(PluginCtlSnapshot, NoHostAnswersInAMinute) {
  const auto host = subscribe("silent");
  const ended_program late = run(snapshot({}), {}, std::chrono::seconds(90));
  EXPECT_EQ(late.status, 1);
  EXPECT_EQ(outcomes(late.out), "FAILED NOT_RUN NOT_RUN NOT_RUN NOT_RUN NOT_RUN");
  EXPECT_NE(late.err.find("no host answered with start_mirror"), std::string::npos) << late.err;
  EXPECT_EQ(log->count("Depart relation done"), 0U);
}

TEST_F(PluginCtlSnapshot, SaysThatATaskMayBeLeftWhenTheDaemonDies) {
  host_plugin host(subscribe(""), true, false);
  const ended_program ended =
      run(snapshot({"--mirror", "kill -KILL " + std::to_string(daemon->pid())}));
  EXPECT_EQ(ended.status, 3);
  EXPECT_EQ(outcomes(ended.out), "DONE DONE FAILED NOT_RUN NOT_RUN FAILED");
  EXPECT_NE(ended.err.find("mirror_done, "), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("`plugin_ctl publish depart-done"), std::string::npos) << ended.err;
}

TEST_F(PluginCtlSnapshot, EndsTheHandShakeEvenIfNobodyReadsTheReport) {
  host_plugin host(subscribe(""), true, true);
  program tool(snapshot({"--mirror", "sleep 0.3"}));
  tool.close_out();
  EXPECT_EQ(tool.wait(), 4);
  EXPECT_EQ(host.told(), 0);
  EXPECT_FALSE(task_is_there());
}

TEST_F(PluginCtlSnapshot, TellsTheCommandsWhichLun) {
  host_plugin host(subscribe(""), true, true);
  words line = command_line({"snapshot", "--p80",     kLun,       "--p83",
                             kLunNaa,    "--uuid",    "U",        "--dst-uuid",
                             "D",        "--dst-p80", "DP",       "--dst-p83",
                             "DN",       "--replica", "--cmd-sn", "3",
                             "--qel-sn", "Q",         "--mirror", "env | grep ^VEXO_ | sort"});
  const ended_program ended = run(line, {"VEXO_SRC_LUN_UUID=of somebody else"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_NE(ended.err.find(std::string("VEXO_CMD_SN=3\n") + "VEXO_COMMAND=init_snapshot_req\n" +
                           "VEXO_DST_LUN_P80=DP\n" + "VEXO_DST_LUN_P83=DN\n" +
                           "VEXO_DST_LUN_UUID=D\n" + "VEXO_IS_FOR_REPLICA=true\n"),
            std::string::npos)
      << ended.err;
  EXPECT_NE(ended.err.find(std::string("VEXO_QEL_SN=Q\n") + "VEXO_SRC_LUN_P80=" + kLun +
                           "\nVEXO_SRC_LUN_P83=" + kLunNaa + "\nVEXO_SRC_LUN_UUID=U\n" +
                           "VEXO_TASK_ID=" + kLun + "\n"),
            std::string::npos)
      << ended.err;
  std::istringstream table(ended.out);
  std::string row;
  std::getline(table, row);
  EXPECT_EQ(row, "STEP             OUTCOME       SECONDS  REASON");
  std::getline(table, row);
  EXPECT_EQ(row.rfind("init_snapshot    done            ", 0), 0U) << row;
}

}  // namespace
}  // namespace vexo::test
