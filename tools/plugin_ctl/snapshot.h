#ifndef TOOLS_PLUGIN_CTL_SNAPSHOT_H_
#define TOOLS_PLUGIN_CTL_SNAPSHOT_H_

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/split_time.h"
#include "lun_group.h"
#include "session.h"
#include "snapshot_hosts.h"
#include "snapshot_report.h"

namespace vexo::tools {

struct snapshot_options {
  lun_group luns;
  std::string mirror;  // shell commands; empty when there is nothing to run
  std::string split;
  std::chrono::milliseconds max_split = kMaxSplit;
  std::vector<std::string> hosts;  // that must be listed throughout
  bool goes_on_without_host = false;
};

// The local caller's side of one snapshot of one or more LUNs, from its announcement to its end.
// It succeeds for all LUNs or fails for all. Also after a failure or a signal, every handshake that
// this run began is ended in the daemon, and no other is.
class snapshot {
 public:
  snapshot(session& with, snapshot_options options);

  // Takes the snapshot; once per object. Failures are written to stderr, the verdict to the end of
  // the report and to the system log.
  exit_code run();

 private:
  using clock = std::chrono::steady_clock;
  using answer = outcome<scsiplugin::PluginCmdResp>;

  struct member {
    handshake lun;
    bool must_end_task = false;  // the daemon holds a task that this run has to end
    bool has_host = true;
    // How long the call had taken when it ended without an answer.
    std::optional<std::chrono::duration<double>> init_given_up_after = {};
  };
  // The same call for each LUN, side by side.
  struct lun_calls {
    // A LUN that they do not concern is skipped.
    std::function<bool(const member&)> concerns = [](const member& of) { return of.has_host; };
    std::function<scsiplugin::PluginCmd(const member&)> command;
    call_options options;
    // Sets the outcome of the step's line from the answer.
    std::function<void(SnapshotStep&, member&, const answer&)> judge;
    // An answer that makes waiting for the others needless.
    std::function<bool(const answer&)> is_failure;
  };
  struct failure {
    std::string step;
    std::string lun;  // empty for all
    problem why;
  };

  // Runs one step unless an earlier one failed or a signal has come, and reports it in `lines`
  // lines, which `body` fills in: one for each LUN, or a single one.
  void step(const std::string& name, std::size_t lines,
            const std::function<void(std::vector<SnapshotStep>&)>& body);
  void call_step(const std::string& name, const std::function<lun_calls()>& prepare);
  void command_step(const std::string& name, const std::string& command,
                    std::optional<std::chrono::milliseconds> limit);
  void fail(SnapshotStep& step, SnapshotStep::Outcome outcome, const std::string& reason,
            problem why);

  lun_calls init_snapshot();
  lun_calls mirror_done();
  lun_calls wait_for_depart();
  lun_calls confirm();
  lun_calls depart_done();
  void judge_init(SnapshotStep& step, member& of, const answer& result);
  void judge_wait(SnapshotStep& step, member& of, const answer& result);
  // Says in failure_ when the daemon will have given up the announcements that this run gave up.
  void advise_when_to_repeat();
  // Sets the outcome of `step` from the answer to its call. True when the daemon said yes. After a
  // no, `if_refused` is what to do, and `why_refused` the reason if it is known.
  bool judge(SnapshotStep& step, const answer& result, const std::string& if_refused,
             const std::string& why_refused = "");

  // Throws tool_error when the daemon says that it does not support one of the LUNs, which is also
  // its answer for one that it does not know. When the user allows a copy without a host, that is
  // only a warning.
  void require_luns();
  // The limits of a call that waits for a host, and what the user is told meanwhile.
  call_options host_wait(const std::string& step);
  // Says which hosts `step` may be waiting for.
  void explain_wait(const std::string& step);
  SnapshotVerdict verdict();
  exit_code end();

  session& with_;
  const snapshot_options options_;
  std::vector<member> members_;
  snapshot_report report_;
  snapshot_hosts hosts_;
  const clock::time_point start_ = clock::now();
  std::optional<failure> failure_;  // the first one
  // What depart_done tells the hosts after a failure: the exit status of the command, else 1.
  std::int32_t failed_result_ = 1;
  std::string explained_;  // the step whose wait the user was last told about
  clock::time_point all_at_rest_;
  std::chrono::duration<double> at_rest_{};
  bool copy_is_good_ = false;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SNAPSHOT_H_
