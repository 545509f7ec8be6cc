#include "guard.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/text.h"
#include "daemon_evidence.h"
#include "guard_status.h"
#include "service_manager.h"

namespace vexo::tools {

namespace {

using std::chrono::system_clock;

// How often to look whether the registry's silence has lasted long enough.
constexpr std::chrono::milliseconds kTick{100};
// What is over sooner, as when somebody restarts the daemon, changes no verdict.
constexpr std::chrono::seconds kToldAfter{1};

double seconds_since(std::chrono::steady_clock::time_point then) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - then).count();
}

std::string joined(const std::vector<finding>& found) {
  std::string text;
  for (const finding& one : found) text += (text.empty() ? "" : "; ") + one.what;
  return text;
}

}  // namespace

guard::guard(guard_options options, interrupt& stop)
    : options_(std::move(options)),
      stop_(stop),
      sweeper_(parse_endpoint(kUnixEndpoint), options_.interval, options_.patience),
      watch_(options_.patience) {
  status_.set_guard_since(time_text(system_clock::now()));
  status_.set_since(status_.guard_since());
  status_.set_error("the guard has just started");
}

void guard::run() {
  if (!options_.status_file.empty()) write_status(options_.status_file, status_);
  notify_service_manager("READY=1");
  syslog(LOG_NOTICE, "guarding: sweeps every %.3g s, %s the daemon after %.3g s of failure",
         std::chrono::duration<double>(options_.interval).count(),
         options_.may_kill ? "restarts" : "would restart",
         std::chrono::duration<double>(options_.fail_after).count());
  while (!stop_.requested()) {
    watch_.step();
    const sighting seen = look();
    if (is_complete(seen)) {
      const auto found = findings(seen, clock::now());
      judge(found);
      if (const auto reason = due(found)) restart_daemon(*reason);
    }
    if (clock::now() >= next_report_) report();
    stop_.wait({watch_.fd()}, std::min(watch_.next(), clock::now() + kTick));
  }
  syslog(LOG_NOTICE, "guarding no more: told to end");
  notify_service_manager("STOPPING=1");
  if (!options_.status_file.empty()) std::remove(options_.status_file.c_str());
}

sighting guard::look() const {
  const auto& process = watch_.process();
  return {sweeper_.look(), watch_.views(), process && process->alive(), options_.patience};
}

void guard::judge(std::vector<finding> found) {
  const auto is_young = [](const finding& one) { return one.last_seen - one.since < kToldAfter; };
  if (!found.empty() && std::all_of(found.begin(), found.end(), is_young)) return;
  std::erase_if(found, is_young);
  auto state = GuardStatus::OK;
  for (const finding& one : found) state = std::min(state, one.state);
  const std::string error = joined(found);
  if (judged_ && state == status_.state() && error == status_.error()) return;
  if (!judged_ || state != status_.state()) status_.set_since(time_text(system_clock::now()));
  judged_ = true;
  status_.set_state(state);
  status_.set_error(error);
  const pid_t pid = watch_.process() ? watch_.process()->pid() : 0;
  if (state != GuardStatus::OK) {
    complain(error +
             (pid > 0 ? " [process " + std::to_string(pid) + ": " + open_files(pid) + "]" : ""));
  } else if (failing_since_) {
    status_.set_last_recovery_seconds(seconds_since(*failing_since_));
    failing_since_.reset();
    syslog(LOG_NOTICE, "the daemon serves again, process %d, %.1f s after it failed", pid,
           status_.last_recovery_seconds());
  } else {
    syslog(LOG_NOTICE, "the daemon serves on both endpoints, process %d", pid);
  }
  next_report_ = clock::now();
}

std::optional<finding> guard::due(const std::vector<finding>& found) const {
  const auto now = clock::now();
  if (last_attempt_ && now - *last_attempt_ < options_.fail_after) return {};
  for (const finding& one : found) {
    if (one.restart_cures && now - one.since >= options_.fail_after) return one;
  }
  return {};
}

void guard::restart_daemon(const finding& reason) {
  last_attempt_ = clock::now();
  const auto failing = [&] {
    const auto found = findings(look(), clock::now());
    return std::any_of(found.begin(), found.end(),
                       [&](const finding& one) { return one.what == reason.what; });
  };
  try {
    const daemon_process& daemon = process();
    syslog(LOG_ERR, "%s the daemon, process %d: for %.1f s %s",
           options_.may_kill ? "restarting" : "would restart (--no-kill)", daemon.pid(),
           seconds_since(reason.since), printable(reason.what).c_str());
    if (!options_.may_kill) return;
    for (const std::string& line : evidence_of(daemon.pid())) {
      syslog(LOG_NOTICE, "process %d: %s", daemon.pid(), line.c_str());
    }
    report();
    if (!failing()) {
      syslog(LOG_NOTICE, "not restarting it: it serves again");
      return;
    }
    if (!failing_since_) failing_since_ = reason.since;
    if (!end_process(daemon, stop_)) {
      complain("the daemon, process " + std::to_string(daemon.pid()) +
               ", does not end: it may hang in a system call");
      return;
    }
    status_.set_restarts(status_.restarts() + 1);
    status_.set_last_restart(time_text(system_clock::now()));
    watch_.forget();
    last_attempt_ = clock::now();
    syslog(LOG_NOTICE, "process %d has ended; its supervisor has to start the daemon again",
           daemon.pid());
  } catch (const std::runtime_error& error) {
    complain(std::string("the daemon cannot be restarted: ") + error.what());
  }
}

const daemon_process& guard::process() {
  if (!options_.pid_file.empty()) {
    from_pid_file_ = daemon_process::named_in(options_.pid_file);
    return *from_pid_file_;
  }
  const auto& process = watch_.process();
  if (!process) {
    throw std::runtime_error(
        "its process is not known; is it in another PID namespace? Name it with --pid-file");
  }
  return *process;
}

void guard::complain(const std::string& text) {
  syslog(LOG_ERR, "%s", printable(text).c_str());
  status_.set_last_error(text);
  status_.set_last_error_time(time_text(system_clock::now()));
}

void guard::report() {
  next_report_ = clock::now() + kStatusEvery;
  const auto registry = sweeper_.look();
  status_.set_hosts(static_cast<std::uint32_t>(registry.hosts));
  status_.set_sweeps(registry.sweeps);
  const auto& process = watch_.process();
  status_.set_daemon_pid(process && process->alive() ? process->pid() : 0);
  notify_service_manager("WATCHDOG=1");
  if (options_.status_file.empty()) return;
  try {
    write_status(options_.status_file, status_);
    status_file_works_ = true;
  } catch (const std::system_error& error) {
    if (std::exchange(status_file_works_, false)) {
      syslog(LOG_ERR, "the status file cannot be written: %s", error.what());
    }
  }
}

}  // namespace vexo::tools
