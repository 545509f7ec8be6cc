#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "common/number_option.h"
#include "common/text.h"
#include "guard.h"
#include "guard_status.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

// The part of --fail-after in which a look has to be answered, when --timeout says nothing.
constexpr int kLooksInFailAfter = 5;

std::chrono::milliseconds as_milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds));
}

struct guard_words {
  guard_options options;
  double interval = 0.5;
  double fail_after = 25;
  bool no_kill = false;
};

[[noreturn]] void refuse(const std::string& what, const std::string& next) {
  throw tool_error({exit_code::usage, "guard", what, next});
}

guard_options checked_options(const session& with, guard_words words, bool status_file_given) {
  if (with.target_given) {
    refuse("--target", "run the guard on the appliance: it watches the daemon beside it");
  }
  guard_options& options = words.options;
  options.interval = as_milliseconds(words.interval);
  options.fail_after = as_milliseconds(words.fail_after);
  options.patience = with.timeout.value_or(options.fail_after / kLooksInFailAfter);
  options.may_kill = !words.no_kill;
  if (options.patience >= options.fail_after) {
    refuse("--timeout is not shorter than --fail-after",
           "leave time for more than one look, as with --timeout 5 --fail-after 25");
  }
  // Without the directory that an installation makes, as by hand, there is nobody to read it.
  if (!status_file_given &&
      access(std::filesystem::path(kStatusFile).parent_path().c_str(), W_OK) != 0) {
    options.status_file.clear();
  }
  return options;
}

exit_code run_guard(const session& with, const guard_options& options) {
  // The journal has the lines already when it reads this program's stderr.
  const bool in_journal =
      std::getenv("JOURNAL_STREAM") != nullptr;  // NOLINT(concurrency-mt-unsafe)
  openlog("scsi-plugin-guard", in_journal ? 0 : LOG_PERROR, LOG_DAEMON);
  guard(options, with.stop).run();
  return exit_code::done;
}

exit_code code_of(const GuardStatus& status) {
  switch (status.state()) {
    case GuardStatus::OK:
      return exit_code::done;
    case GuardStatus::DEGRADED:
      return exit_code::refused;
    default:
      return exit_code::unreachable;
  }
}

exit_code show_status(const session& with, const std::string& path) {
  const GuardStatus status = read_status(path);
  if (with.format == output_format::json) {
    print(to_json(status) + "\n");
  } else {
    table rows({"STATE", "SINCE", "HOSTS", "SWEEPS", "RESTARTS", "LAST ERROR"});
    rows.add({GuardStatus::State_Name(status.state()), status.since(),
              std::to_string(status.hosts()), std::to_string(status.sweeps()),
              std::to_string(status.restarts()),
              status.last_error().empty() ? "none"
                                          : status.last_error_time() + " " + status.last_error()});
    print(rows.text());
  }
  if (!status.error().empty()) say(printable(status.error()));
  return code_of(status);
}

void add_guard(CLI::App& app, session& with) {
  const auto words = std::make_shared<guard_words>();
  words->options.status_file = kStatusFile;
  const auto status_file = std::make_shared<CLI::Option*>(nullptr);
  CLI::App* const verb = add_verb(
      app, with, "guard",
      "Keeps the daemon of this machine serving, until a signal ends it: unsubscribes hosts that\n"
      "have vanished, before the next snapshot hangs on them; watches both endpoints; and ends a\n"
      "daemon that no longer serves, for its supervisor to start it again. Its log goes to the\n"
      "system log. --timeout is how long one look may take, by default a fifth of --fail-after",
      "plugin_ctl guard\nplugin_ctl guard --no-kill --status-file /tmp/guard.json",
      [&with, words, status_file] {
        return run_guard(with, checked_options(with, *words, (*status_file)->count() > 0));
      });
  verb->add_option("--interval", words->interval, "How often to look for vanished hosts")
      ->check(number_between(0.01, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  verb->add_option("--fail-after", words->fail_after,
                   "How long an endpoint has to fail without a break before the daemon is ended; "
                   "a host that has stalled can make it stand still for 20")
      ->check(number_between(1.0, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  verb->add_flag("--no-kill", words->no_kill, "Only reports");
  *status_file = verb->add_option("--status-file", words->options.status_file,
                                  "Where to write what `plugin_ctl guard-status` shows")
                     ->type_name("FILE")
                     ->capture_default_str();
}

void add_guard_status(CLI::App& app, session& with) {
  const auto path = std::make_shared<std::string>(kStatusFile);
  CLI::App* const verb =
      add_verb(app, with, "guard-status",
               "Shows what the guard of this machine has found, for people and for monitoring.\n"
               "Exit codes: 0 ok, 1 degraded, 3 down, or no guard is running to tell",
               "plugin_ctl guard-status\nplugin_ctl -o json guard-status",
               [&with, path] { return show_status(with, *path); });
  verb->add_option("--status-file", *path, "The guard's own --status-file")
      ->type_name("FILE")
      ->capture_default_str();
}

}  // namespace

void add_guard_verbs(CLI::App& app, session& with) {
  add_guard(app, with);
  add_guard_status(app, with);
}

}  // namespace vexo::tools
