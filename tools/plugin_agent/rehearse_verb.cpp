#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "common/errors.h"
#include "common/event.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_agent/handshake.h"
#include "plugin_agent/host_rests.h"
#include "plugin_agent/played_appliance.h"
#include "plugin_agent/status_socket.h"
#include "plugin_agent/verbs.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr char kTried[] = "rehearsing a snapshot";

// A rehearsal must not make a snapshot wait for its turn, nor wait for one itself.
void refuse_beside_a_snapshot(const std::string& run_dir) {
  const std::string next =
      "rehearse again when it is over; \"plugin_agent status\" says how far it is";
  for (const auto& agent : ask_agents(run_dir)) {
    if (agent.status.handshakes().empty()) continue;
    throw tool_error({exit_code::failed, kTried,
                      "agent " + std::to_string(agent.pid) + " takes part in a snapshot of LUN " +
                          agent.status.handshakes(0).lun(),
                      next});
  }
  if (const pid_t other = run_directory(run_dir).lock_holder(); other != 0) {
    throw tool_error({exit_code::failed, kTried,
                      "freezer " + std::to_string(other) + " has this host at rest", next});
  }
}

scsiplugin::PluginCmd announcement(const agent_options& options) {
  scsiplugin::PluginCmd command;
  const std::string lun = options.luns.empty() ? "rehearsal" : options.luns.front();
  command.set_task_id(lun);
  command.mutable_init_snapshot_req()->set_src_lun_p80(lun);
  return command;
}

std::uint32_t difference(std::uint32_t all, std::uint32_t part) {
  return all - std::min(all, part);
}

std::uint32_t ms_between(clock::time_point from, clock::time_point until) {
  return static_cast<std::uint32_t>(
      std::max<milliseconds::rep>(std::chrono::round<milliseconds>(until - from).count(), 0));
}

RehearsalReport report_on(handshake& ended, const played_appliance::moments& seen,
                          clock::time_point begun, clock::time_point told_over) {
  const HandshakeRecord record = ended.record().value();
  RehearsalReport report;
  for (const auto& one : ended.file_systems()) {
    auto& shown = *report.add_file_systems();
    shown.set_mount_point(printable(one.mount_point()));
    shown.set_ms(static_cast<std::uint32_t>(one.ms()));
  }
  *report.mutable_record() = record;
  const auto& hooks = record.hooks();
  const bool all_succeeded = std::all_of(hooks.begin(), hooks.end(),
                                         [](const auto& hook) { return hook.exit_code() == 0; });
  report.set_as_asked(all_succeeded && (record.verdict() == "application-consistent" ||
                                        record.verdict() == "filesystem-consistent"));
  report.set_prepare_ms(ms_between(begun, seen.prepared.value_or(clock::now())));
  if (!seen.departed) return report;
  std::uint32_t in_hooks = 0;
  for (const auto& hook : hooks) in_hooks += hook.phase() == "freeze" ? hook.ms() : 0;
  report.set_file_systems_ms(difference(record.freeze_ms(), in_hooks));
  report.set_held_ms(ms_between(*seen.departed, told_over));
  report.set_thaw_ms(difference(record.frozen_ms(), record.freeze_ms() + report.held_ms()));
  return report;
}

shown_text outcome(const RehearsalReport& report) {
  const auto& record = report.record();
  std::string text;
  if (report.file_systems_size() > 1) {
    text +=
        "file systems that do not lie on each other freeze at the same time: their times overlap\n";
  }
  text += "verdict: " + record.verdict();
  if (!record.reason().empty()) text += ": " + record.reason();
  text += ", at rest for " + std::to_string(record.frozen_ms()) + " ms\n";
  if (record.verdict() == "crash-consistent") {
    text += "not as asked: there was no hook to run\n";
  } else if (record.verdict() != "failed" && !report.as_asked()) {
    text += "not as asked: a thaw hook failed\n";
  }
  return already_escaped(std::move(text));
}

shown_text as_table(const RehearsalReport& report) {
  table rows({"STEP", "WHAT", "MS", "RESULT"});
  const auto add_step = [&](const std::string& phase, std::uint32_t ms) {
    for (const auto& hook : report.record().hooks()) {
      if (hook.phase() != phase) continue;
      rows.add({phase, "hook " + hook.name(), std::to_string(hook.ms()),
                hook.timed_out()        ? "killed: it took too long"
                : hook.exit_code() != 0 ? "exit code " + std::to_string(hook.exit_code())
                                        : "done"});
    }
    if (phase == "freeze") {
      for (const auto& one : report.file_systems()) {
        rows.add({phase, one.mount_point(), std::to_string(one.ms()), "done"});
      }
    }
    if (ms > 0) rows.add({phase, "all of it", std::to_string(ms), "-"});
  };
  add_step("prepare", report.prepare_ms());
  add_step("freeze", report.record().freeze_ms());
  if (report.held_ms() > 0) rows.add({"hold", "-", std::to_string(report.held_ms()), "-"});
  add_step("thaw", report.thaw_ms());
  return rows.text() + outcome(report);
}

}  // namespace

exit_code rehearse(const agent_options& options, interrupt& stop) {
  if (!options.freezes()) {
    throw tool_error({exit_code::usage, kTried, "neither --hooks nor --fs is given",
                      "give what the agent is given, or the same file with --config"});
  }
  if (options.rehearse_for >= options.max_freeze) {
    throw tool_error({exit_code::usage, kTried, "--seconds is not less than --max-freeze",
                      "stay at rest for less, or for longer with --max-freeze"});
  }
  refuse_beside_a_snapshot(options.run_dir);
  recover(options.run_dir, options.hook_timeout, stop.fd());
  played_appliance daemon;
  const auto where = std::make_shared<appliance>("rehearsal", daemon.channel());
  host_rests rests;
  handshake shake(options, rests, where, announcement(options));
  event ended;
  const auto begun = clock::now();
  std::jthread thread([&] {
    shake.run();
    ended.raise();
  });
  const auto is_interrupted = [&](const event& news, clock::time_point until) {
    return stop.wait({ended.fd(), news.fd()}, until) == interrupt::wake::interrupted;
  };
  constexpr auto kForever = clock::time_point::max();
  bool interrupted = is_interrupted(daemon.departed(), kForever);
  auto told_over = clock::now();
  if (!interrupted && daemon.departed().raised()) {
    interrupted = is_interrupted(ended, *daemon.seen().departed + options.rehearse_for);
    told_over = clock::now();
    if (!interrupted) shake.departed(0);
  }
  if (interrupted) shake.stop_now();
  thread.join();
  const auto report = report_on(shake, daemon.seen(), begun, told_over);
  print(options.format == output_format::json ? to_json(report) + "\n" : as_table(report));
  if (interrupted) return exit_code::interrupted;
  return report.as_asked() ? exit_code::done : exit_code::refused;
}

}  // namespace vexo::tools
