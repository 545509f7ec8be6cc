#ifndef TOOLS_PLUGIN_CTL_SNAPSHOT_H_
#define TOOLS_PLUGIN_CTL_SNAPSHOT_H_

#include <optional>
#include <string>

#include "handshake.h"
#include "session.h"
#include "shell_command.h"
#include "snapshot_report.h"

namespace vexo::tools {

struct snapshot_options {
  handshake about;
  std::string mirror;  // shell commands; empty when there is nothing to run
  std::string split;
};

// The local caller's side of one snapshot, from its announcement to its end. Also after a failure
// or a signal, the handshake that this run began is ended in the daemon, and no other is.
class snapshot {
 public:
  snapshot(session& with, const snapshot_options& options);

  // Runs it to its end; once per object. Failures are written to stderr.
  exit_code run();

 private:
  struct failure {
    std::string step;
    problem why;
  };

  // Runs one step unless an earlier one failed or a signal has come, and reports it. `body` calls
  // fail() when the step fails.
  template <class Body>
  void step(const std::string& name, Body body);
  void fail(SnapshotStep& step, SnapshotStep::Outcome outcome, const std::string& reason,
            problem why);

  void init_snapshot(SnapshotStep& step);
  void mirror_done(SnapshotStep& step);
  void wait_for_depart(SnapshotStep& step);
  void depart_done(SnapshotStep& step);
  void run_command(SnapshotStep& step, const std::string& command);

  outcome<scsiplugin::PluginCmdResp> publish(const scsiplugin::PluginCmd& command,
                                             const call_options& options);
  call_options host_wait(const std::string& step);
  // Waits for a connection for as long as a call may take. Empty when there is one, else the status
  // with which a call would have failed.
  std::optional<grpc::Status> connect();
  // Marks `step` by the outcome of its call. True when the daemon said yes.
  bool judge(SnapshotStep& step, const outcome<scsiplugin::PluginCmdResp>& result,
             const std::string& if_refused);

  session& with_;
  const snapshot_options options_;
  snapshot_report report_;
  std::optional<failure> failure_;  // the first one
  // The daemon holds a task that this run has to end.
  bool owes_depart_ = false;
  // What depart_done tells the hosts after a failure: the exit status of the command, else 1.
  std::int32_t failed_result_ = 1;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SNAPSHOT_H_
