#include "snapshot.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "shell_command.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::LunCmd;
using scsiplugin::LunCmdResp;
using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;
using std::chrono::milliseconds;
using seconds_t = std::chrono::duration<double>;

constexpr char kDepartDone[] = "depart_done";
constexpr char kNo[] = "the daemon's answer is no (success: false)";
constexpr char kIfNoHost[] =
    "start the plugin of the host that uses this LUN; `plugin_ctl list` shows it then. `--no-host "
    "crash-consistent` takes a copy without one";
constexpr char kSyslogName[] = "scsi-plugin-snapshot";

bool is_yes(const outcome<PluginCmdResp>& result) {
  return result.answered() && result.response.success();
}

// A wait that is longer than this is explained.
constexpr milliseconds kLongWait{5000};

}  // namespace

snapshot::snapshot(session& with, snapshot_options options)
    : with_(with),
      options_(std::move(options)),
      report_(with.format, options_.luns.size() > 1),
      hosts_(with, options_.hosts) {
  for (const auto& lun : options_.luns) members_.push_back({lun});
}

exit_code snapshot::run() {
  call_step("init_snapshot", [this] { return init_snapshot(); });
  command_step("mirror", options_.mirror, std::nullopt);
  call_step("mirror_done", [this] { return mirror_done(); });
  call_step("wait_for_depart", [this] { return wait_for_depart(); });
  all_at_rest_ = clock::now();
  command_step("split", options_.split, options_.max_split);
  call_step("confirm", [this] { return confirm(); });
  copy_is_good_ = !failure_;
  call_step(kDepartDone, [this] { return depart_done(); });
  return end();
}

void snapshot::step(const std::string& name, std::size_t lines,
                    const std::function<void(std::vector<SnapshotStep>&)>& body) {
  std::vector<SnapshotStep> steps(lines);
  for (std::size_t i = 0; i < lines; ++i) {
    steps[i].set_step(name);
    if (lines == members_.size()) steps[i].set_task_id(members_[i].lun.p80);
    steps[i].set_outcome(SnapshotStep::DONE);
  }
  const bool is_cleanup = name == kDepartDone;
  const auto start = clock::now();
  try {
    if (failure_ && !is_cleanup) {
      for (auto& it : steps) it.set_outcome(SnapshotStep::NOT_RUN);
    } else if (with_.stop.requested() && !is_cleanup) {
      for (auto& it : steps) {
        fail(it, SnapshotStep::INTERRUPTED, "a signal came before it", with_.interrupted(name));
      }
    } else {
      body(steps);
    }
  } catch (const tool_error& error) {
    const bool by_signal = error.code == exit_code::interrupted;
    for (auto& it : steps) {
      fail(it, by_signal ? SnapshotStep::INTERRUPTED : SnapshotStep::FAILED, error.why.came_back,
           error.why);
    }
  } catch (const std::exception& error) {
    // This machine refused something, as a process or a file. depart_done must still follow.
    for (auto& it : steps) {
      fail(it, SnapshotStep::FAILED, error.what(),
           {exit_code::failed, name, error.what(), "see to this machine's limits"});
    }
  }
  for (auto& it : steps) {
    if (it.seconds() == 0 && it.outcome() != SnapshotStep::NOT_RUN) {
      it.set_seconds(seconds_t(clock::now() - start).count());
    }
    report_.ended(it);
  }
}

void snapshot::call_step(const std::string& name, const std::function<lun_calls()>& prepare) {
  step(name, members_.size(), [&](std::vector<SnapshotStep>& steps) {
    const lun_calls calls = prepare();
    std::vector<PluginCmd> commands;
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < members_.size(); ++i) {
      if (calls.concerns(members_[i])) {
        places.push_back(i);
        commands.push_back(calls.command(members_[i]));
      } else if (name == kDepartDone) {
        steps[i].set_outcome(SnapshotStep::NOT_RUN);
      } else {
        steps[i].set_outcome(SnapshotStep::SKIPPED);
        steps[i].set_reason("no host takes part");
      }
    }
    const auto results =
        call_all<PluginCmd, PluginCmdResp>(with_.stub(), &service_stub::Publish, commands,
                                           with_.stop, calls.options, calls.is_failure);
    for (std::size_t i = 0; i < places.size(); ++i) {
      steps[places[i]].set_seconds(results[i].took.count());
      calls.judge(steps[places[i]], members_[places[i]], results[i]);
    }
  });
}

void snapshot::fail(SnapshotStep& step, SnapshotStep::Outcome outcome, const std::string& reason,
                    problem why) {
  step.set_outcome(outcome);
  step.set_reason(reason);
  if (!failure_) failure_ = failure{step.step(), step.task_id(), std::move(why)};
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
// arrive: neither a signal nor a short --timeout nor another LUN's failure ends the call within
// kRefusalTime, which begins when there is a connection.
snapshot::lun_calls snapshot::init_snapshot() {
  with_.connect("Publish init_snapshot_req");
  hosts_.look_before_announcement();
  require_luns();
  lun_calls calls;
  calls.command = [](const member& of) { return of.lun.init_snapshot(); };
  calls.options = host_wait("init_snapshot");
  calls.options.timeout = std::max(calls.options.timeout, kRefusalTime);
  calls.options.undisturbed = kRefusalTime;
  calls.judge = [this](auto& step, auto& of, const auto& result) { judge_init(step, of, result); };
  calls.is_failure = [this](const answer& result) {
    return !is_yes(result) && !(result.answered() && options_.goes_on_without_host);
  };
  return calls;
}

void snapshot::judge_init(SnapshotStep& step, member& of, const answer& result) {
  of.must_end_task = !result.answered() || result.response.success();
  const bool nobody_answered = result.took > kRefusalTime;
  const bool is_alone = !nobody_answered && hosts_.nobody_was_listed();
  const std::string why_no = nobody_answered ? "no host answered"
                             : is_alone      ? "no host is subscribed"
                                             : "";
  if (options_.goes_on_without_host && result.answered() && !result.response.success() &&
      !why_no.empty()) {
    of.has_host = false;
    step.set_outcome(SnapshotStep::SKIPPED);
    step.set_reason(why_no);
    return;
  }
  judge(step, result, is_alone ? kIfNoHost : next_after_refused_init(of.lun, result.took), why_no);
  if (!result.answered()) of.init_given_up_after = result.took;
}

// The daemon's handler of an init_snapshot that was given up cannot be cancelled. It waits on after
// depart_done has removed the task, and at the end of its 60 s it removes any task that the LUN has
// then.
void snapshot::advise_when_to_repeat() {
  std::string luns;
  seconds_t left(1);
  for (const member& each : members_) {
    if (!each.init_given_up_after) continue;
    luns += (luns.empty() ? "" : ", ") + each.lun.p80;
    left = std::max<seconds_t>(left, kHostWait - *each.init_given_up_after);
  }
  if (luns.empty()) return;
  const std::string later = "begin the next snapshot of " + luns + " in " +
                            std::to_string(std::chrono::ceil<std::chrono::seconds>(left).count()) +
                            " s, when the daemon has given this one up";
  std::string& next = failure_->why.next;
  next = failure_->why.code == exit_code::interrupted ? later : next + "; " + later;
}

snapshot::lun_calls snapshot::mirror_done() {
  lun_calls calls;
  calls.command = [](const member& of) { return of.lun.mirror_done(); };
  calls.options = with_.limits();
  calls.judge = [this](SnapshotStep& step, member&, const answer& result) {
    if (result.answered() && !result.response.success()) {
      // For a LUN that needs no mirror, the host's is_mirror_done has moved the handshake on
      // already. If somebody has ended the handshake instead, the next step says so.
      step.set_outcome(SnapshotStep::SKIPPED);
      step.set_reason("the daemon's answer is no: a host has gone on without it");
    } else {
      judge(step, result, "");
    }
  };
  return calls;
}

snapshot::lun_calls snapshot::wait_for_depart() {
  lun_calls calls;
  calls.command = [](const member& of) { return of.lun.wait_for_depart(); };
  calls.options = host_wait("wait_for_depart");
  calls.judge = [this](auto& step, auto& of, const auto& result) { judge_wait(step, of, result); };
  calls.is_failure = [](const answer& result) { return !is_yes(result); };
  return calls;
}

void snapshot::judge_wait(SnapshotStep& step, member& of, const answer& result) {
  // A no at once means that there is no such task; a later one, that its host did not depart.
  const bool is_gone = result.took <= kRefusalTime;
  if (result.answered() && !result.response.success()) of.must_end_task = !is_gone;
  judge(step, result,
        is_gone ? "somebody else ended this handshake meanwhile, or the daemon was restarted: its "
                  "lines in the system log say which"
                : next_after_refused_wait(of.lun, result.took));
}

// A departure that still stands after the split has stood throughout: a host whose rest ends too
// early takes it back before it thaws. The daemon then waits for the next departure, until the
// deadline of this call.
snapshot::lun_calls snapshot::confirm() {
  at_rest_ = clock::now() - all_at_rest_;
  lun_calls calls;
  calls.command = [](const member& of) { return of.lun.wait_for_depart(); };
  calls.options.timeout = kConfirmTime;
  calls.judge = [this](SnapshotStep& step, member& of, const answer& result) {
    if (result.status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED) {
      judge_wait(step, of, result);
      return;
    }
    const std::string reason = "the host did not stay at rest until the split was over";
    fail(step, SnapshotStep::FAILED, reason,
         {exit_code::refused, "Publish wait_for_depart_req at " + with_.where.text, reason,
          "do not use the copy; the verdict in the host's log says why its rest ended, unless its "
          "agent was killed"});
  };
  return calls;
}

snapshot::lun_calls snapshot::depart_done() {
  if (failure_) advise_when_to_repeat();
  if (!failure_) {
    try {
      hosts_.require_all_still_listed();
    } catch (const tool_error& error) {
      failure_ = failure{"confirm", "", error.why};
      copy_is_good_ = false;
    }
  }
  const std::int32_t result = failure_ ? failed_result_ : 0;
  lun_calls calls;
  calls.concerns = [](const member& of) { return of.must_end_task; };
  calls.command = [result](const member& of) {
    handshake lun = of.lun;
    lun.result = result;
    return lun.depart_done();
  };
  calls.options = with_.limits();
  // A second Ctrl-C does not leave the task behind, nor does a connection that comes back in time.
  calls.options.undisturbed = calls.options.timeout;
  calls.options.wait_for_ready = true;
  calls.judge = [this, result](SnapshotStep& step, member& of, const answer& got) {
    step.set_result(result);
    const bool first_failure = !failure_.has_value();
    if (judge(step, got, "read the daemon's lines in the system log")) return;
    const std::string leftover =
        "the daemon may still hold this handshake and then refuses the next one of this LUN until "
        "300 s after its beginning: `plugin_ctl publish depart-done " +
        of.lun.p80 + " --result " + std::to_string(result) + "` removes it";
    std::string& next = failure_->why.next;
    next = first_failure ? leftover : next + "; " + leftover;
  };
  return calls;
}

void snapshot::command_step(const std::string& name, const std::string& command,
                            std::optional<milliseconds> limit) {
  step(name, 1, [&](std::vector<SnapshotStep>& steps) {
    SnapshotStep& it = steps.front();
    if (command.empty()) {
      it.set_outcome(SnapshotStep::SKIPPED);
      return;
    }
    const group_file group(options_.luns);
    auto variables = group_environment(options_.luns);
    variables.push_back("VEXO_GROUP=" + group.path());
    const command_result result = run_shell_command(command, variables, with_.stop, limit);
    it.set_result(result.status);
    if (result.succeeded()) return;
    if (result.status != 0) failed_result_ = result.status;
    const std::string tried = "/bin/sh -c '" + command + "'";
    if (result.interrupted) {
      fail(it, SnapshotStep::INTERRUPTED, result.reason,
           {exit_code::interrupted, tried, result.reason,
            "see what the command left behind, then call it again"});
    } else if (result.timed_out) {
      fail(it, SnapshotStep::FAILED, result.reason,
           {exit_code::failed, tried, result.reason,
            "make it shorter, since the hosts are at rest meanwhile, or allow it longer with "
            "--max-split; that has to stay below each host's --hold"});
    } else {
      fail(it, SnapshotStep::FAILED, result.reason,
           {exit_code::failed, tried, result.reason,
            "read what the command wrote above; it can be tried alone with the VEXO_ variables "
            "set"});
    }
  });
}

// Without an answer, as while the configuration takes long to load, the announcement decides.
void snapshot::require_luns() {
  std::vector<LunCmd> questions;
  for (const member& one : members_) questions.push_back(is_lun_support(one.lun.p80));
  const auto answers = call_all<LunCmd, LunCmdResp>(with_.stub(), &service_stub::LunOp, questions,
                                                    with_.stop, with_.limits());
  for (std::size_t i = 0; i < answers.size(); ++i) {
    if (answers[i].interrupted) {
      throw tool_error(with_.interrupted("LunOp is_lun_support_req"));
    }
    if (!answers[i].answered() || answers[i].response.success()) continue;
    const std::string& lun = members_[i].lun.p80;
    const std::string reason =
        "the daemon does not know the LUN " + lun + ", or does not support it";
    if (!options_.goes_on_without_host) {
      throw tool_error({exit_code::refused, "LunOp is_lun_support_req at " + with_.where.text,
                        reason,
                        std::string(kIfNotSupported) +
                            "; nothing was announced. `--no-host crash-consistent` goes on"});
    }
    say("warning: " + printable(reason) + "; going on, as --no-host allows");
  }
}

void snapshot::explain_wait(const std::string& step) {
  explained_ = step;
  std::string text = step + " takes long; listed at the announcement: " + hosts_.listed_text();
  const std::string last = with_.last_pushed_host();
  if (!last.empty()) text += "; last pushed to: " + last;
  report_.explain(printable(text));
}

call_options snapshot::host_wait(const std::string& step) {
  call_options options = with_.limits(kHostWaitTimeout);
  const milliseconds limit = std::min(options.timeout, kHostWait);
  options.on_tick = [this, step, limit](milliseconds elapsed) {
    if (elapsed >= kLongWait && explained_ != step) explain_wait(step);
    report_.waiting(step, elapsed, limit);
  };
  return options;
}

bool snapshot::judge(SnapshotStep& step, const answer& result, const std::string& if_refused,
                     const std::string& why_refused) {
  const std::string tried = "Publish " + step.step() + "_req";
  if (is_yes(result)) return true;
  if (result.abandoned) {
    step.set_outcome(SnapshotStep::INTERRUPTED);
    step.set_reason("given up: another LUN of the group failed");
  } else if (result.answered()) {
    const std::string no = why_refused.empty() ? kNo : kNo + (": " + why_refused);
    fail(step, SnapshotStep::FAILED, no,
         {exit_code::refused, tried + " at " + with_.where.text, no, if_refused});
  } else if (result.interrupted) {
    fail(step, SnapshotStep::INTERRUPTED, "a signal came during the wait",
         with_.interrupted(tried, "call it again"));
  } else {
    fail(step, SnapshotStep::FAILED, status_text(result.status),
         with_.no_answer(tried, result.status));
  }
  return false;
}

SnapshotVerdict snapshot::verdict() {
  SnapshotVerdict result;
  for (const auto& one : members_) {
    result.add_luns(one.lun.p80);
    if (!one.has_host) result.add_luns_without_host(one.lun.p80);
  }
  const bool any_host = result.luns_without_host_size() < result.luns_size();
  if (!copy_is_good_) {
    result.set_verdict("failed");
    result.set_reason(failure_->step + ": " + failure_->why.came_back);
  } else {
    result.set_verdict(result.luns_without_host().empty() ? "consistent" : "crash-consistent");
    if (failure_) result.set_reason("not ended in good order: " + failure_->why.came_back);
    if (any_host) result.set_at_rest_seconds(at_rest_.count());
  }
  hosts_.report(result);
  result.set_seconds(seconds_t(clock::now() - start_).count());
  return result;
}

exit_code snapshot::end() {
  const SnapshotVerdict result = verdict();
  report_.verdict(result);
  openlog(kSyslogName, 0, LOG_DAEMON);
  syslog(copy_is_good_ ? LOG_NOTICE : LOG_ERR, "%s", to_json(result).c_str());
  closelog();
  for (const auto& host : result.lost_hosts()) {
    say("warning: the host " + printable(host) +
        " was listed at the announcement and is not any more: if it uses one of these LUNs, do not "
        "rely on the copy (--host makes that a failure)");
  }
  if (failure_) {
    problem why = failure_->why;
    const std::string lun = failure_->lun.empty() ? options_.luns.front().p80 : failure_->lun;
    why.tried = "snapshot of " + lun + ": " + failure_->step + ", " + why.tried;
    say(why.text());
    return why.code;
  }
  if (report_.output_error()) throw tool_error(*report_.output_error());
  return exit_code::done;
}

}  // namespace vexo::tools
