// Freezes and thaws this host for plugin_agent, which starts it for each rest. With --thaw it thaws
// in an emergency.

#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

#include "common/exit_codes.h"
#include "common/help_text.h"
#include "common/number_option.h"
#include "common/text.h"
#include "plugin_freezer/event_loop.h"
#include "plugin_freezer/hook_runs.h"
#include "plugin_freezer/other_freezer.h"
#include "plugin_freezer/process_settings.h"
#include "plugin_freezer/rest.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How often to look whether another rest has ended.
constexpr milliseconds kLockLook{50};
// How long after SIGTERM this program thaws the file systems itself, beside a freezer that still
// has the lock. If that one has begun to thaw in time, its members' commands have ended by then.
constexpr milliseconds kOwnThaw = kReactionTime + kCommandTime + milliseconds(200);

// Thaws the rest on record, if there is one. False when something may still be frozen.
bool thaw_by_record(event_loop& loop, run_directory& directory, milliseconds hook_timeout) {
  bool damaged = false;
  auto record = directory.record(&damaged);
  if (!record) return true;
  if (damaged) {
    loop.agent.error("the record of an earlier rest in the run directory cannot be read in full");
  }
  if (hook_timeout.count() > 0) record->mutable_plan()->set_hook_timeout_ms(hook_timeout.count());
  return rest(loop, directory, std::move(*record)).recover() && !damaged;
}

// Waits for the lock of the run directory and, to freeze, for the end of the pause after the last
// rest. False when the agent no longer wants a rest, or has gone.
bool take_turn(event_loop& loop, run_directory& directory, bool to_freeze) {
  other_freezer other(loop, directory, false);
  for (;;) {
    const auto pause = to_freeze ? directory.not_before() : steady_clock::time_point();
    if (steady_clock::now() >= pause && directory.try_lock()) {
      if (!to_freeze || directory.not_before() <= steady_clock::now()) return true;
      directory.unlock();
    } else if (steady_clock::now() >= pause && !other.wake_or_kill() && !to_freeze) {
      return false;
    }
    loop.wait(steady_clock::now() + kLockLook);
    const bool is_unwanted = std::any_of(loop.requests.begin(), loop.requests.end(),
                                         [](const auto& request) { return !request.has_join(); });
    if (loop.agent_gone || loop.terminated || is_unwanted) return false;
  }
}

// Needs the lock, because the same hooks may have applications at rest for another snapshot.
void undo_prepare(event_loop& loop, FreezerPlan plan, int started) {
  run_directory directory(plan.run_dir());
  other_freezer other(loop, directory, false);
  while (!directory.try_lock()) {
    other.wake_or_kill();
    loop.wait(steady_clock::now() + kLockLook);
  }
  thaw_by_record(loop, directory, milliseconds(0));
  plan.clear_mount_points();
  plan.mutable_hooks()->DeleteSubrange(started, plan.hooks_size() - started);
  rest(loop, directory, plan).undo_prepare();
}

void prepare(event_loop& loop, const FreezerPlan& plan) {
  const int started = run_prepare_hooks(loop, plan);
  while (loop.requests.empty() && !loop.agent_gone && !loop.terminated) {
    loop.wait(steady_clock::time_point::max());
  }
  if (loop.requests.empty() || !loop.requests.front().has_leave()) {
    undo_prepare(loop, plan, started);
  }
}

void serve(event_loop& loop) {
  while (loop.requests.empty()) {
    if (loop.agent_gone) return;
    loop.wait(steady_clock::time_point::max());
  }
  const FreezerRequest request = std::move(loop.requests.front());
  loop.requests.pop_front();
  if (request.has_prepare()) return prepare(loop, request.prepare());
  if (request.has_undo()) return undo_prepare(loop, request.undo(), request.undo().hooks_size());
  if (!request.has_begin() && !request.has_recover()) return;
  const FreezerPlan& plan = request.has_begin() ? request.begin() : request.recover();
  run_directory directory(plan.run_dir());
  if (request.has_recover() && !directory.record()) return;
  if (!take_turn(loop, directory, request.has_begin())) return;
  without_core_dump no_core_dump;
  if (!lock_memory()) {
    loop.agent.warn(
        "the freezer's memory could not be locked (needs CAP_IPC_LOCK or a higher LimitMEMLOCK); "
        "going on");
  }
  const milliseconds hook_timeout(plan.hook_timeout_ms());
  thaw_by_record(loop, directory, request.has_recover() ? hook_timeout : milliseconds(0));
  if (request.has_begin()) rest(loop, directory, plan).run();
}

// As in " /srv/db, what hook 10-a has frozen", for the end of a sentence.
std::string frozen_text(const std::optional<RestRecord>& record) {
  if (!record) return "; it has frozen nothing yet";
  std::string text;
  for (const auto& one : record->file_systems()) text += ", " + one.mount_point();
  for (int i = 0; i < std::min(record->hooks_started(), record->plan().hooks_size()); ++i) {
    text += ", what hook " + record->plan().hooks(i).name() + " has frozen";
  }
  return text.empty() ? text : text.substr(1);
}

// Tells the freezer that has the lock to thaw, kills it if it hangs, and takes the lock when it is
// free. False, with the reason reported, when that cannot be.
bool take_lock_from_other(event_loop& loop, run_directory& directory) {
  const auto told = steady_clock::now();
  const pid_t pid = directory.lock_holder();
  if (pid > 1) {
    loop.agent.warn("freezer " + std::to_string(pid) + " is told to thaw" +
                    frozen_text(directory.record()));
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);
  }
  other_freezer other(loop, directory, true);
  for (bool has_thawed = false; !directory.try_lock();) {
    if (!other.wake_or_kill()) return false;
    loop.wait(steady_clock::now() + kLockLook);
    if (has_thawed || steady_clock::now() < told + kOwnThaw) continue;
    has_thawed = true;
    if (auto record = directory.record())
      rest(loop, directory, std::move(*record)).thaw_file_systems();
    if (directory.lock_holder() <= 1 && !directory.try_lock()) {
      loop.agent.error(
          "a process that cannot be seen from here, for example in another container, has "
          "this host at rest; run this command there");
      return false;
    }
  }
  return true;
}

// The emergency: thaws although another freezer may be at work. False when something may still be
// frozen.
bool thaw_now(event_loop& loop, const std::string& run_dir, milliseconds hook_timeout) {
  run_directory directory(run_dir);
  const bool is_idle = directory.try_lock();
  if (is_idle && !directory.record()) {
    loop.agent.warn("nothing to do: nothing is on record as frozen in " + run_dir);
    return true;
  }
  if (!is_idle && !take_lock_from_other(loop, directory)) return false;
  if (!thaw_by_record(loop, directory, hook_timeout)) return false;
  loop.agent.warn("everything is thawed");
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
      "Example:\n  plugin_freezer --thaw\n\nExit codes: 0 everything is thawed, or --help; "
      "2 usage; 4 failure on this host.");
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
  event_loop loop(thaw ? -1 : STDIN_FILENO);
  set_oom_score(kFreezerOomScore);
  if (thaw) {
    lock_memory();
    const milliseconds timeout(static_cast<std::int64_t>(hook_timeout * 1000));
    return thaw_now(loop, run_dir, timeout) ? exit_code::done : exit_code::failed;
  } else {
    try {
      serve(loop);
    } catch (const std::exception& error) {
      FreezerReport failed;
      failed.mutable_thawed()->set_reason(error.what());
      failed.mutable_thawed()->set_certain(true);
      loop.agent.send(failed);
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
