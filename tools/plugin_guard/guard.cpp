#include "plugin_guard/guard.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/call.h"
#include "common/connection.h"
#include "common/daemon_log.h"
#include "common/metrics.h"
#include "common/text.h"
#include "plugin_guard/daemon_evidence.h"
#include "plugin_guard/daemon_process.h"
#include "plugin_guard/status.h"

namespace vexo::tools {

namespace {

using std::chrono::system_clock;

// How often to look whether a list has stayed unanswered for long enough.
constexpr std::chrono::milliseconds kTick{100};
// A failure that is over sooner, as when somebody restarts the daemon, is not reported.
constexpr std::chrono::seconds kReportedAfter{1};
// How often a node exporter is usually asked.
constexpr std::chrono::seconds kMetricsEvery{15};

constexpr std::pair<GuardStatus::State, const char*> kStateNames[] = {
    {GuardStatus::OK, "ok"}, {GuardStatus::DEGRADED, "degraded"}, {GuardStatus::DOWN, "down"}};

double seconds_since(std::chrono::steady_clock::time_point then) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - then).count();
}

long seconds_until(std::chrono::steady_clock::time_point then) {
  return std::chrono::ceil<std::chrono::seconds>(then - std::chrono::steady_clock::now()).count();
}

std::string joined(const std::vector<finding>& found) {
  std::string text;
  for (const finding& one : found) text += (text.empty() ? "" : "; ") + one.what;
  return text;
}

}  // namespace

guard::guard(options given, interrupt& stop)
    : options_(std::move(given)), stop_(stop), watch_(options_.patience) {
  start_sweeper();
  status_.set_guard_since(time_text(started_));
  status_.set_since(status_.guard_since());
  status_.set_error("the guard has just started");
}

void guard::run() {
  report();
  sd_notify(0, "READY=1");
  syslog(LOG_NOTICE, "guarding: sweeps every %.3g s, %s the daemon after %.3g s of failure",
         std::chrono::duration<double>(options_.interval).count(),
         options_.may_kill ? "restarts" : "would restart",
         std::chrono::duration<double>(options_.fail_after).count());
  if (options_.status_file.empty()) {
    syslog(LOG_NOTICE,
           "writes no status for --status and --check: %s cannot be written here; "
           "--status-file names another",
           kStatusFile);
  }
  while (!stop_.requested()) {
    watch_.step();
    follow_process();
    const observation seen = look();
    if (is_complete(seen)) {
      const auto found = findings(seen, clock::now());
      judge(found);
      if (const auto reason = due(found)) restart_daemon(*reason);
    }
    if (clock::now() >= next_report_) report();
    stop_.wait({watch_.fd()}, std::min(watch_.next(), clock::now() + kTick));
  }
  syslog(LOG_NOTICE, "guarding no more: told to end");
  sd_notify(0, "STOPPING=1");
  if (!options_.status_file.empty()) std::remove(options_.status_file.c_str());
}

observation guard::look() const {
  const auto& process = watch_.process();
  auto registry = sweeper_->look();
  const bool runs = process && process->alive();
  // What the sweeper saw of another process, or of one that has ended, says nothing about this one.
  if (process && (!runs || registry.process != process->pid())) registry = {};
  return {registry, watch_.views(), runs, options_.patience};
}

void guard::follow_process() {
  const auto& process = watch_.process();
  const auto registry = sweeper_->look();
  if (!process || !process->alive() || registry.process == 0 ||
      registry.process == process->pid()) {
    return;
  }
  earlier_sweeps_ += registry.sweeps;
  start_sweeper();
}

void guard::start_sweeper() {
  sweeper_.emplace(parse_endpoint(kUnixEndpoint), options_.interval, options_.patience);
}

void guard::judge(std::vector<finding> found) {
  const auto is_young = [](const finding& one) {
    return one.last_seen - one.since < kReportedAfter;
  };
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
  const auto& process = watch_.process();
  const pid_t pid = process && process->alive() ? process->pid() : 0;
  if (state != GuardStatus::OK) {
    const std::string host = last_pushed_host();
    complain(error + (pid > 0 ? " [process " + std::to_string(pid) + ": " + open_files(pid) +
                                    (host.empty() ? "" : ", last pushed to host " + host) + "]"
                              : ""));
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
    if (one.restart_cures && now - one.since >= options_.fail_after - options_.patience) return one;
  }
  return {};
}

void guard::restart_daemon(const finding& reason) {
  if (options_.may_kill && clock::now() < back_off_.next()) {
    if (std::exchange(pause_logged_, true)) return;
    complain("not restarting the daemon yet: restarted " + std::to_string(back_off_.count()) +
             " times in a row, waiting " + std::to_string(seconds_until(back_off_.next())) +
             " s before the next");
    return;
  }
  last_attempt_ = clock::now();
  try {
    const daemon_evidence evidence(watch_.process()->pid());
    const bool failing = keeps_failing(reason);
    last_attempt_ = clock::now();
    if (stop_.requested()) return;
    if (!failing) {
      syslog(LOG_NOTICE, "not restarting the daemon: it serves again, or no longer fails alike");
      return;
    }
    const daemon_process& daemon = *watch_.process();
    syslog(LOG_ERR, "%s the daemon, process %d: for %.1f s %s",
           options_.may_kill ? "restarting" : "would restart (--no-kill)", daemon.pid(),
           seconds_since(reason.since), printable(reason.what).c_str());
    syslog(LOG_NOTICE, "process %d: %s", daemon.pid(), evidence.text().c_str());
    if (!options_.may_kill) return;
    back_off_.note(clock::now());
    pause_logged_ = false;
    if (!failing_since_) failing_since_ = reason.since;
    if (!end_process(daemon, stop_)) {
      complain("the daemon, process " + std::to_string(daemon.pid()) +
               ", does not end: it may hang in a system call");
      return;
    }
    status_.set_restarts(status_.restarts() + 1);
    status_.set_last_restart(time_text(system_clock::now()));
    syslog(LOG_NOTICE, "process %d has ended; its supervisor has to start the daemon again",
           daemon.pid());
    watch_.forget();
    last_attempt_ = clock::now();
  } catch (const std::runtime_error& error) {
    complain(std::string("the daemon cannot be restarted: ") + error.what());
  }
}

bool guard::keeps_failing(const finding& reason) {
  const auto end =
      std::max(reason.since + options_.fail_after, clock::now() + daemon_evidence::kLoadTime);
  while (last_look_fails(reason)) {
    if (clock::now() >= end) return true;
    stop_.wait({}, clock::now() + kTick);
    if (stop_.requested()) return false;
  }
  return false;
}

bool guard::last_look_fails(const finding& reason) {
  const auto report_if_due = [&] {
    if (clock::now() >= next_report_) report();
  };
  report_if_due();
  if (!reason.endpoint) {
    if (!last_call_fails(report_if_due)) return false;
  } else {
    watch_.look_at(*reason.endpoint);
    while (watch_.fd() >= 0 && !stop_.requested()) {
      stop_.wait({watch_.fd()}, std::min(watch_.next(), next_report_));
      report_if_due();
      watch_.step();
    }
  }
  const auto found = findings(look(), clock::now());
  return std::any_of(found.begin(), found.end(), [&](const finding& one) {
    return one.restart_cures && one.what == reason.what && one.since == reason.since;
  });
}

// On a new connection, because the sweeper's own may be what fails.
bool guard::last_call_fails(const std::function<void()>& meanwhile) {
  unique_fd connection = begin_connection(parse_endpoint(kUnixEndpoint));
  if (!connection) return errno == EAGAIN;  // the queue of connections to accept is full
  if (listener_of(connection.get()) != watch_.process()->pid()) return false;
  const auto stub = scsiplugin::PluginService::NewStub(make_channel(std::move(connection)));
  call_options limits;
  limits.timeout = options_.patience;
  limits.on_tick = [&](auto) { meanwhile(); };
  const auto answer =
      call(*stub, &service_stub::PluginConnList, google::protobuf::Empty(), stop_, limits);
  return !answer.interrupted &&
         (answer.status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED ||
          answer.status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED);
}

void guard::complain(const std::string& text) {
  syslog(LOG_ERR, "%s", printable(text).c_str());
  status_.set_last_error(text);
  status_.set_last_error_time(time_text(system_clock::now()));
}

void guard::report() {
  next_report_ = clock::now() + kStatusEvery;
  const auto registry = sweeper_->look();
  status_.set_hosts(static_cast<std::uint32_t>(registry.hosts));
  status_.set_sweeps(earlier_sweeps_ + registry.sweeps);
  const auto& process = watch_.process();
  status_.set_daemon_pid(process && process->alive() ? process->pid() : 0);
  sd_notify(0, "WATCHDOG=1");
  const auto now = clock::now();
  if (judged_) {
    seconds_in_.at(static_cast<std::size_t>(status_.state())) +=
        std::chrono::duration<double>(now - counted_until_).count();
  }
  counted_until_ = now;
  write_metrics();
  if (options_.status_file.empty()) return;
  try {
    write_status(options_.status_file, status_);
    status_file_works_ = true;
  } catch (const std::system_error& error) {
    if (std::exchange(status_file_works_, false)) {
      syslog(LOG_ERR, "going on without the status file, which cannot be written: %s",
             error.what());
    }
  }
}

void guard::write_metrics() {
  const bool is_news = status_.SerializeAsString() != in_metrics_.SerializeAsString();
  if (options_.metrics_file.empty() || !judged_ || (!is_news && clock::now() < next_metrics_)) {
    return;
  }
  next_metrics_ = clock::now() + kMetricsEvery;
  in_metrics_ = status_;
  using type = metrics_page::type;
  metrics_page page;
  page.family("scsi_plugin_guard_hosts", type::gauge, "Hosts listed at the last look.");
  page.sample(status_.hosts());
  page.family("scsi_plugin_guard_sweeps_total", type::counter, "Vanished hosts unsubscribed.");
  page.sample(status_.sweeps());
  page.family("scsi_plugin_guard_restarts_total", type::counter, "Restarts of the daemon.");
  page.sample(status_.restarts());
  page.family("scsi_plugin_guard_state_seconds_total", type::counter, "Time in each state.");
  for (const auto& [state, name] : kStateNames) {
    page.sample(seconds_in_.at(static_cast<std::size_t>(state)), {{"state", name}});
  }
  page.family("scsi_plugin_guard_state", type::gauge, "1 for the state of now, 0 for the others.");
  for (const auto& [state, name] : kStateNames) {
    page.sample(status_.state() == state ? 1 : 0, {{"state", name}});
  }
  page.family("scsi_plugin_guard_last_recovery_seconds", type::gauge,
              "From the first sign of the last failure until the daemon served again; 0 for none.");
  page.sample(status_.last_recovery_seconds());
  page.family("scsi_plugin_guard_start_timestamp_seconds", type::gauge, "When the guard started.");
  page.sample(static_cast<double>(system_clock::to_time_t(started_)));
  try {
    page.write_to(options_.metrics_file);
    metrics_file_works_ = true;
  } catch (const std::system_error& error) {
    if (std::exchange(metrics_file_works_, false)) {
      syslog(LOG_ERR, "going on without the file for metrics, which cannot be written: %s",
             error.what());
    }
  }
}

}  // namespace vexo::tools
