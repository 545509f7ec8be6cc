#include "snapshot.h"

#include <algorithm>
#include <exception>
#include <memory>

#include "common/command_fields.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;
using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds since(clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(clock::now() - start);
}

}  // namespace

snapshot::snapshot(session& with, const snapshot_options& options)
    : with_(with), options_(options), report_(with.format, options.about.p80) {}

exit_code snapshot::run() {
  step("init_snapshot", [&](SnapshotStep& it) { init_snapshot(it); });
  step("mirror", [&](SnapshotStep& it) { run_command(it, options_.mirror); });
  step("mirror_done", [&](SnapshotStep& it) { mirror_done(it); });
  step("wait_for_depart", [&](SnapshotStep& it) { wait_for_depart(it); });
  step("split", [&](SnapshotStep& it) { run_command(it, options_.split); });
  step("depart_done", [&](SnapshotStep& it) { depart_done(it); });

  if (failure_) {
    problem why = failure_->why;
    why.tried = "snapshot of " + options_.about.p80 + ": " + failure_->step + ", " + why.tried;
    say(why.text());
    return why.code;
  }
  if (report_.output_error()) throw tool_error(*report_.output_error());
  return exit_code::done;
}

template <class Body>
void snapshot::step(const std::string& name, Body body) {
  SnapshotStep it;
  it.set_step(name);
  const bool last = name == "depart_done";
  const auto start = clock::now();
  if (last ? !owes_depart_ : failure_.has_value()) {
    it.set_outcome(SnapshotStep::NOT_RUN);
  } else if (!last && with_.stop.requested()) {
    fail(it, SnapshotStep::INTERRUPTED, "a signal came before it",
         with_.interrupted(name, "nothing is left behind: call it again"));
  } else {
    it.set_outcome(SnapshotStep::DONE);
    try {
      body(it);
    } catch (const std::exception& error) {
      // This machine refused something, as a process or a file. depart_done must still follow.
      fail(it, SnapshotStep::FAILED, error.what(),
           {exit_code::failed, name, error.what(), "see to this machine's limits"});
    }
  }
  it.set_seconds(std::chrono::duration<double>(since(start)).count());
  report_.ended(std::move(it));
}

void snapshot::fail(SnapshotStep& step, SnapshotStep::Outcome outcome, const std::string& reason,
                    problem why) {
  step.set_outcome(outcome);
  step.set_reason(reason);
  if (!failure_) failure_ = failure{step.step(), std::move(why)};
}

// Whether the daemon now holds a task of this run has to be concluded from its answer, which has no
// field for it:
//   yes            A host answered. The task is there, and this run has to end it.
//   no, at once    The daemon refused: no host is subscribed, or there is a task of this LUN
//                  already. That one is somebody else's, and depart_done would end it.
//   no, later      No host answered in 60 s, and the daemon has removed the task. If there is one
//                  now, it is somebody else's.
//   no answer      The call ended by its deadline, a signal or a broken connection. A refusal would
//                  have come at once, so the daemon is still telling the hosts or waiting for one:
//                  the task is there.
// So depart_done never follows a no. For the last conclusion a refusal must have had the time to
// arrive: neither a signal nor a short --timeout ends the call within kRefusalTime, which begins
// when there is a connection.
void snapshot::init_snapshot(SnapshotStep& step) {
  const std::string tried = "Publish init_snapshot_req";
  if (const auto unreached = connect()) {
    if (with_.stop.requested()) {
      fail(step, SnapshotStep::INTERRUPTED, "a signal came before there was a connection",
           with_.interrupted(tried, "nothing is left behind: call it again"));
    } else {
      fail(step, SnapshotStep::FAILED, status_text(*unreached),
           call_problem(tried, with_.where, *unreached));
    }
    return;
  }
  call_options options = host_wait(step.step());
  options.timeout = std::max(options.timeout, kRefusalTime);
  options.undisturbed = kRefusalTime;
  const auto result = publish(options_.about.init_snapshot(), options);
  owes_depart_ = !result.answered() || result.response.success();
  judge(step, result, next_after_refused_init(options_.about, result.took));
  if (!result.answered() && failure_) {
    // The daemon's handler cannot be cancelled. It waits on after depart_done has removed the task,
    // and at the end of its 60 s it removes any task that the LUN has then.
    const auto left = std::chrono::ceil<std::chrono::seconds>(kHostWait - result.took).count();
    const std::string later = "begin the next snapshot of this LUN in " +
                              std::to_string(std::max<decltype(left)>(left, 1)) +
                              " s, when the daemon has given this one up";
    std::string& next = failure_->why.next;
    next = result.interrupted ? later : next + "; " + later;
  }
}

void snapshot::mirror_done(SnapshotStep& step) {
  const auto result = publish(options_.about.mirror_done(), with_.limits());
  if (result.answered() && !result.response.success()) {
    // For a LUN that needs no mirror, the host's is_mirror_done has moved the handshake on already.
    // If somebody has ended the handshake instead, the next step says so.
    step.set_outcome(SnapshotStep::SKIPPED);
    step.set_reason("the daemon's answer is no: a host has gone on without it");
    return;
  }
  judge(step, result, "");
}

void snapshot::wait_for_depart(SnapshotStep& step) {
  const auto result = publish(options_.about.wait_for_depart(), host_wait(step.step()));
  if (judge(step, result, "")) return;
  if (!result.answered()) return;
  // A no at once means that there is no such task; a later one, that its host did not depart.
  const bool is_gone = result.took <= kRefusalTime;
  owes_depart_ = !is_gone;
  failure_->why.next =
      is_gone ? "somebody else ended this handshake meanwhile, or the daemon was restarted: its "
                "lines in the system log say which"
              : next_after_refused_wait(options_.about, result.took);
}

void snapshot::depart_done(SnapshotStep& step) {
  handshake about = options_.about;
  about.result = failure_ ? failed_result_ : 0;
  step.set_result(about.result);
  call_options options = with_.limits();
  options.undisturbed = options.timeout;  // a second Ctrl-C does not leave the task behind
  options.wait_for_ready = true;          // nor does a connection that comes back in time
  const bool first_failure = !failure_.has_value();
  const auto answer = publish(about.depart_done(), options);
  if (judge(step, answer, "read the daemon's lines in the system log")) return;
  const std::string leftover =
      "the daemon may still hold this handshake and then refuses the next one of this LUN until "
      "300 s after its beginning: `plugin_ctl publish depart-done " +
      about.p80 + " --result " + std::to_string(about.result) + "` removes it";
  std::string& next = failure_->why.next;
  next = first_failure ? leftover : next + "; " + leftover;
}

void snapshot::run_command(SnapshotStep& step, const std::string& command) {
  if (command.empty()) {
    step.set_outcome(SnapshotStep::SKIPPED);
    return;
  }
  std::vector<std::string> variables = command_environment(options_.about.init_snapshot());
  const handshake& lun = options_.about;
  variables.push_back("VEXO_DST_LUN_P80=" + lun.dst_p80);
  variables.push_back("VEXO_DST_LUN_P83=" + lun.dst_p83);
  const command_result result = run_shell_command(command, variables, with_.stop);
  step.set_result(result.status);
  if (result.succeeded()) return;
  if (result.status != 0) failed_result_ = result.status;
  const std::string tried = "/bin/sh -c '" + command + "'";
  if (result.interrupted) {
    fail(step, SnapshotStep::INTERRUPTED, result.reason,
         {exit_code::interrupted, tried, result.reason,
          "see what the command left behind, then call it again"});
  } else {
    fail(step, SnapshotStep::FAILED, result.reason,
         {exit_code::failed, tried, result.reason,
          "read what the command wrote above; it can be tried alone with the VEXO_ variables set"});
  }
}

outcome<PluginCmdResp> snapshot::publish(const PluginCmd& command, const call_options& options) {
  return call(with_.stub(), &service_stub::Publish, command, with_.stop, options);
}

call_options snapshot::host_wait(const std::string& step) {
  call_options options = with_.limits(kHostWaitTimeout);
  const milliseconds limit = std::min(options.timeout, kHostWait);
  options.on_tick = [this, step, limit](milliseconds elapsed) {
    report_.waiting(step, elapsed, limit);
  };
  return options;
}

std::optional<grpc::Status> snapshot::connect() {
  constexpr milliseconds kSlice{50};
  const auto deadline = clock::now() + with_.limits().timeout;
  while (clock::now() < deadline && !with_.stop.requested()) {
    const auto state = with_.channel().GetState(true);
    if (state == GRPC_CHANNEL_READY) return std::nullopt;
    if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) {
      // The channel does not tell why it failed, but a call on it ends at once with the reason.
      const auto list =
          call(with_.stub(), &service_stub::PluginConnList, google::protobuf::Empty(), with_.stop);
      if (!list.answered()) return list.status;
    }
    with_.channel().WaitForStateChange(state, std::chrono::system_clock::now() + kSlice);
  }
  return grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED, "no connection in time");
}

bool snapshot::judge(SnapshotStep& step, const outcome<PluginCmdResp>& result,
                     const std::string& if_refused) {
  const std::string tried = "Publish " + step.step() + "_req";
  if (result.answered() && result.response.success()) return true;
  if (result.answered()) {
    const std::string no = "the daemon's answer is no (success: false)";
    fail(step, SnapshotStep::FAILED, no,
         {exit_code::refused, tried + " at " + with_.where.text, no, if_refused});
  } else if (result.interrupted) {
    fail(step, SnapshotStep::INTERRUPTED, "a signal came during the wait",
         with_.interrupted(tried, "call it again"));
  } else {
    fail(step, SnapshotStep::FAILED, status_text(result.status),
         call_problem(tried, with_.where, result.status));
  }
  return false;
}

void add_snapshot_verb(CLI::App& app, session& with) {
  const auto options = std::make_shared<snapshot_options>();
  CLI::App* const verb = add_verb(
      app, with, "snapshot",
      "Takes a snapshot as the local caller does: announces it to the hosts, runs the mirror\n"
      "command, waits until a host is quiet, runs the split command, and ends the handshake, "
      "also\n"
      "when something fails or Ctrl-C ends it. The commands are run by /bin/sh with the LUN's\n"
      "identifiers in VEXO_SRC_LUN_P80, VEXO_SRC_LUN_P83, VEXO_SRC_LUN_UUID, VEXO_DST_LUN_UUID,\n"
      "VEXO_DST_LUN_P80 and VEXO_DST_LUN_P83; their output goes to stderr. From the end of the\n"
      "wait to the end of the split the host's applications stand still: keep the split short",
      "plugin_ctl snapshot --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6 \\\n"
      "    --mirror 'lvcreate --snapshot ...' --split 'lvconvert --splitmirrors 1 ...'",
      [&with, options] { return snapshot(with, *options).run(); });
  options->about.add_options(*verb, {"--p80", "--p83", "--uuid", "--dst-uuid", "--dst-p80",
                                     "--dst-p83", "--replica", "--cmd-sn", "--qel-sn"});
  verb->add_option("--mirror", options->mirror, "Shell command that mirrors the LUN")
      ->type_name("CMD");
  verb->add_option("--split", options->split, "Shell command that splits the mirror")
      ->type_name("CMD");
}

}  // namespace vexo::tools
