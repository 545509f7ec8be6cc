// Freezes and thaws this host for plugin_agent, which starts it for each rest; and thaws it in an
// emergency.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <exception>
#include <iostream>
#include <utility>

#include "common/exit_codes.h"
#include "common/help_text.h"
#include "common/number_option.h"
#include "common/text.h"
#include "plugin_freezer/outside.h"
#include "plugin_freezer/rest.h"
#include "plugin_freezer/survival.h"
#include "plugin_freezer/turn.h"

namespace vexo::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How often to look whether another rest has ended.
constexpr milliseconds kTurnLook{50};
// How long after its deadline another freezer counts as hanging, and how long it may take to begin
// a thaw after SIGTERM.
constexpr milliseconds kPatience{1000};
// How long after SIGTERM the file systems are thawed beside a freezer that has not given its turn
// back: when it has begun to thaw in time, its members' commands are over by then.
constexpr milliseconds kOwnThaw = kPatience + kCommandTime + milliseconds(200);

// False when something may still be frozen.
bool thaw_what_was_left(outside& world, turn& right, milliseconds hook_timeout) {
  bool damaged = false;
  auto record = right.record(&damaged);
  if (!record) return true;
  if (damaged) {
    world.report.error("the record of an earlier rest in the run directory cannot be read in full");
  }
  if (hook_timeout.count() > 0) record->mutable_plan()->set_hook_timeout_ms(hook_timeout.count());
  return rest(world, right, std::move(*record)).recover() && !damaged;
}

// Another freezer, which has the turn.
class other_freezer {
 public:
  other_freezer(outside& world, const turn& right, bool is_emergency)
      : world_(world), turn_(right), is_emergency_(is_emergency) {}

  // Wakes it if it is stopped, and kills it when it hangs. False when there is no other freezer, or
  // one that has thawed and only watches processes.
  bool is_worth_waiting() {
    const pid_t pid = turn_.holder();
    if (pid <= 1) return true;  // it is ending
    if (std::exchange(pid_, pid) != pid) since_ = steady_clock::now();
    if (look_at(pid).is_stopped()) kill(pid, SIGCONT);
    const auto record = turn_.record();
    const bool is_known = record && is_of_this_boot(record->boot_id(), record->plan().run_dir());
    if (is_known && record->phase() == RestRecord::WATCHING) {
      say(pid,
          "waits for processes of an earlier rest that may freeze something yet; no other rest "
          "of this host begins before");
      return false;
    }
    if (!is_known && !is_emergency_) return true;
    const bool is_thawing = is_known && record->phase() == RestRecord::THAWING;
    const bool is_to_react = is_emergency_ && !is_thawing;
    const auto until = is_to_react ? since_ : from_ms(record->until());
    const auto left = std::chrono::ceil<milliseconds>(until + kPatience - steady_clock::now());
    if (left.count() > 0) {
      if (!is_emergency_)
        say(pid, "has this host at rest; waiting for at most " + seconds_text(left));
    } else if (std::exchange(killed_, pid) != pid) {
      world_.report.warn("freezer " + std::to_string(pid) + " hangs; it is killed");
      kill(pid, SIGKILL);
    }
    return true;
  }

 private:
  void say(pid_t pid, const std::string& what) {
    if (std::exchange(told_, pid) == pid) return;
    world_.report.warn("freezer " + std::to_string(pid) + " " + what);
  }

  outside& world_;
  const turn& turn_;
  const bool is_emergency_;
  pid_t pid_ = 0;
  steady_clock::time_point since_;
  pid_t told_ = 0;
  pid_t killed_ = 0;
};

// False when the agent no longer wants it.
bool take_turn(outside& world, turn& right, bool to_freeze) {
  other_freezer other(world, right, false);
  for (;;) {
    const auto pause = to_freeze ? right.not_before() : steady_clock::time_point();
    if (steady_clock::now() >= pause && right.try_take()) {
      if (!to_freeze || right.not_before() <= steady_clock::now()) return true;
      right.give_back();
    } else if (steady_clock::now() >= pause && !other.is_worth_waiting() && !to_freeze) {
      return false;
    }
    world.wait(steady_clock::now() + kTurnLook);
    const bool is_unwanted = std::any_of(world.requests.begin(), world.requests.end(),
                                         [](const auto& request) { return !request.has_join(); });
    if (world.agent_gone || world.terminated || is_unwanted) return false;
  }
}

// The same hooks may have applications at rest for another snapshot: so this has to have the turn.
void undo_prepare(outside& world, FreezerPlan plan, int begun) {
  turn right(plan.run_dir());
  other_freezer other(world, right, false);
  while (!right.try_take()) {
    other.is_worth_waiting();
    world.wait(steady_clock::now() + kTurnLook);
  }
  thaw_what_was_left(world, right, milliseconds(0));
  plan.clear_mount_points();
  plan.mutable_hooks()->DeleteSubrange(begun, plan.hooks_size() - begun);
  rest(world, right, plan).undo_prepare();
}

void prepare(outside& world, const FreezerPlan& plan) {
  const int begun = run_prepare_hooks(world, plan);
  while (world.requests.empty() && !world.agent_gone && !world.terminated) {
    world.wait(steady_clock::time_point::max());
  }
  if (world.requests.empty() || !world.requests.front().has_leave()) {
    undo_prepare(world, plan, begun);
  }
}

void serve(outside& world) {
  while (world.requests.empty()) {
    if (world.agent_gone) return;
    world.wait(steady_clock::time_point::max());
  }
  const FreezerRequest request = std::move(world.requests.front());
  world.requests.pop_front();
  if (request.has_prepare()) return prepare(world, request.prepare());
  if (request.has_undo()) return undo_prepare(world, request.undo(), request.undo().hooks_size());
  if (!request.has_begin() && !request.has_recover()) return;
  const FreezerPlan& plan = request.has_begin() ? request.begin() : request.recover();
  turn right(plan.run_dir());
  if (request.has_recover() && !right.record()) return;
  if (!take_turn(world, right, request.has_begin())) return;
  without_core_dump no_core_dump;
  if (!lock_memory()) {
    world.report.warn(
        "the freezer's memory could not be locked (needs CAP_IPC_LOCK or a higher LimitMEMLOCK); "
        "going on");
  }
  const milliseconds hook_timeout(plan.hook_timeout_ms());
  thaw_what_was_left(world, right, request.has_recover() ? hook_timeout : milliseconds(0));
  if (request.has_begin()) rest(world, right, plan).run();
}

// As in " /srv/db, what hook 10-a has frozen".
std::string frozen_text(const std::optional<RestRecord>& record) {
  if (!record) return "; it has frozen nothing yet";
  std::string text;
  for (const auto& one : record->file_systems()) text += ", " + one.mount_point();
  for (int i = 0; i < std::min(record->hooks_started(), record->plan().hooks_size()); ++i) {
    text += ", what hook " + record->plan().hooks(i).name() + " has frozen";
  }
  return text.empty() ? text : text.substr(1);
}

// Has another freezer thaw, which then gives its turn back; kills it when it hangs. False, with
// the reason in the report, when the turn cannot be had.
bool take_turn_from_other(outside& world, turn& right) {
  const auto told = steady_clock::now();
  const pid_t pid = right.holder();
  if (pid > 1) {
    world.report.warn("freezer " + std::to_string(pid) + " is told to thaw" +
                      frozen_text(right.record()));
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);
  }
  other_freezer other(world, right, true);
  for (bool is_helped = false; !right.try_take();) {
    if (!other.is_worth_waiting()) return false;
    world.wait(steady_clock::now() + kTurnLook);
    if (is_helped || steady_clock::now() < told + kOwnThaw) continue;
    is_helped = true;
    if (auto record = right.record()) rest(world, right, std::move(*record)).thaw_file_systems();
    if (right.holder() <= 1 && !right.try_take()) {
      world.report.error(
          "a process that is not to be seen from here, as in another container, has this host at "
          "rest; run this where it runs");
      return false;
    }
  }
  return true;
}

// Whatever another freezer is doing. False when something may still be frozen.
bool thaw_now(outside& world, const std::string& run_dir, milliseconds hook_timeout) {
  turn right(run_dir);
  const bool is_idle = right.try_take();
  if (is_idle && !right.record()) {
    world.report.warn("nothing to do: nothing is on record as frozen in " + run_dir);
    return true;
  }
  if (!is_idle && !take_turn_from_other(world, right)) return false;
  if (!thaw_what_was_left(world, right, hook_timeout)) return false;
  world.report.warn("everything is thawed");
  return true;
}

exit_code run(int argc, char** argv) {
  CLI::App app(
      "Brings this host to rest for plugin_agent, which starts it for each snapshot, and thaws "
      "it.\n"
      "By hand it is of use with --thaw only.",
      "plugin_freezer");
  wrap_help(app);
  bool thaw = false;
  std::string run_dir = "/run/plugin_agent";
  double hook_timeout = 10;
  app.set_version_flag("--version", "plugin_freezer " VEXO_TOOLS_VERSION);
  app.footer(
      "Example:\n  plugin_freezer --thaw\n\nExit codes: 0 everything is thawed, or --help; 2 "
      "usage; "
      "4 failure on this host.");
  app.add_flag("--thaw", thaw, "Thaw now what any agent of this host has frozen, and end");
  app.add_option("--run-dir", run_dir, "Where the record of a rest is kept")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--hook-timeout", hook_timeout, "Seconds that one hook may take")
      ->check(number_between(0.1, 600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help_or_version) {
    app.exit(help_or_version);
    return exit_code::done;
  } catch (const CLI::Error& error) {
    std::cerr << "plugin_freezer: " << printable(error.what())
              << "\nRun with --help for more information.\n";
    return exit_code::usage;
  }
  int type = 0;
  socklen_t size = sizeof type;
  const bool has_socket =
      getsockopt(STDIN_FILENO, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET;
  if (!thaw && !has_socket) {
    std::cerr << "plugin_freezer: plugin_agent starts this program. To thaw this host now: "
                 "plugin_freezer --thaw\n";
    return exit_code::usage;
  }
  outside world(thaw ? -1 : STDIN_FILENO);
  set_oom_score(kFreezerOomScore);
  if (thaw) {
    lock_memory();
    const milliseconds timeout(static_cast<std::int64_t>(hook_timeout * 1000));
    return thaw_now(world, run_dir, timeout) ? exit_code::done : exit_code::failed;
  } else {
    try {
      serve(world);
    } catch (const std::exception& error) {
      FreezerReport failed;
      failed.mutable_thawed()->set_reason(error.what());
      failed.mutable_thawed()->set_certain(true);
      world.report.send(failed);
      return exit_code::failed;
    }
  }
  return exit_code::done;
}

}  // namespace
}  // namespace vexo::tools

int main(int argc, char** argv) {
  using namespace vexo::tools;
  try {
    return static_cast<int>(run(argc, argv));
  } catch (const std::exception& error) {
    std::cerr << "plugin_freezer: " << printable(error.what()) << "\n";
    return static_cast<int>(exit_code::failed);
  }
}
