// Keeps the daemon of this machine serving, and shows what it has found.

#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "common/errors.h"
#include "common/exit_codes.h"
#include "common/help_text.h"
#include "common/interrupt.h"
#include "common/journal.h"
#include "common/number_option.h"
#include "common/output.h"
#include "common/standard_fds.h"
#include "common/text.h"
#include "plugin_guard/guard.h"
#include "plugin_guard/status.h"

namespace vexo::tools {

namespace {

constexpr char kDescription[] =
    "Keeps the SCSI plugin server of this machine serving, until a signal ends it: unsubscribes\n"
    "hosts that have vanished, before the next snapshot hangs on them; watches both endpoints; "
    "and\n"
    "ends a daemon that no longer serves, for its supervisor to start it again. Its log goes to\n"
    "the system log. With --status or --check it tells what the running guard has found.";

constexpr char kFooter[] =
    "Exit codes: 0 ended by a signal, 2 usage, 4 any other failure.\n"
    "With --status: 0 ok, 1 degraded, 3 down, or no guard is running to tell.\n"
    "With --check: 0 ok, 1 degraded, 2 down, 3 unknown: no guard is running, or wrong usage.\n"
    "\n"
    "Example:\n"
    "  plugin_guard\n"
    "  plugin_guard --no-kill --status-file /tmp/guard.json\n"
    "  plugin_guard --status\n"
    "  plugin_guard --status -o json\n"
    "  plugin_guard --check";

// By default a look may take this part of --fail-after.
constexpr int kLooksInFailAfter = 5;

// What the command line says.
struct command_line {
  double interval = 0.5;
  double fail_after = 25;
  std::optional<double> timeout;
  bool no_kill = false;
  std::string status_file = kStatusFile;
  std::string metrics;
  bool status = false;
  bool check = false;
  std::string output = "table";
};

std::chrono::milliseconds as_milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds));
}

void say(const shown_text& text) { std::fprintf(stderr, "plugin_guard: %s\n", text.c_str()); }

void declare(CLI::App& app, command_line& given) {
  app.add_option("--interval", given.interval, "How often to look for vanished hosts")
      ->check(number_between(0.01, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--fail-after", given.fail_after,
                 "How long a failure has to last without a break before the daemon is ended; a "
                 "stalled host can block the daemon for 20 s")
      ->check(number_between(1.0, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--timeout", given.timeout,
                 "How long one look may take; a fifth of --fail-after if not given")
      ->check(number_between(0.001, 3600.0))
      ->type_name("SECONDS");
  app.add_flag("--no-kill", given.no_kill, "Reports failures, but never ends the daemon");
  app.add_option("--status-file", given.status_file,
                 "Where the guard writes its status, and --status and --check read it")
      ->type_name("FILE")
      ->capture_default_str();
  app.add_option("--metrics", given.metrics,
                 "Write metrics for a node exporter's textfile folder to this file")
      ->type_name("FILE");
  app.add_flag("--check", given.check,
               "Tells in one line how the daemon is, for a Nagios-type monitor, and ends");
  app.add_flag("--status", given.status,
               "Shows what the guard of this machine has found, and ends");
  app.add_option("-o,--output", given.output,
                 "What --status prints: a table for people, or json for programs")
      ->check(CLI::IsMember({"table", "json"}))
      ->type_name("FORMAT")
      ->capture_default_str();
  app.set_version_flag("--version", "plugin_guard " VEXO_TOOLS_VERSION);
}

// Refuses options of the guard together with --status or --check, and --output without --status.
void refuse_unused_options(const CLI::App& app, const command_line& given) {
  const auto refuse = [&](const char* option, const char* why) {
    if (app.count(option) > 0) throw CLI::ValidationError(std::string(option) + " " + why);
  };
  if (!given.status) refuse("--output", "is for --status only");
  if (given.status) refuse("--check", "tells the same as --status: name one of them");
  if (!given.status && !given.check) return;
  for (const char* option : {"--interval", "--fail-after", "--timeout", "--no-kill", "--metrics"}) {
    refuse(option, "is for the guard itself, and this only reads its status file");
  }
}

guard::options checked_options(const command_line& given, bool status_file_given) {
  guard::options options;
  options.interval = as_milliseconds(given.interval);
  options.fail_after = as_milliseconds(given.fail_after);
  options.patience =
      given.timeout ? as_milliseconds(*given.timeout) : options.fail_after / kLooksInFailAfter;
  options.may_kill = !given.no_kill;
  options.metrics_file = given.metrics;
  if (options.patience >= options.fail_after) {
    throw CLI::ValidationError(
        "--timeout is not shorter than --fail-after: leave time for more than one look, as with "
        "--timeout 5 --fail-after 25");
  }
  // Only the guard's unit makes the default's directory: without it there is no status file.
  if (status_file_given ||
      access(std::filesystem::path(kStatusFile).parent_path().c_str(), W_OK) == 0) {
    options.status_file = given.status_file;
  }
  return options;
}

exit_code code_of(GuardStatus::State state) {
  switch (state) {
    case GuardStatus::OK:
      return exit_code::done;
    case GuardStatus::DEGRADED:
      return exit_code::refused;
    default:
      return exit_code::unreachable;
  }
}

exit_code show_status(const command_line& given) {
  const GuardStatus status = read_status(given.status_file).status;
  if (given.output == "json") {
    print(to_json(status) + "\n");
  } else if (status.state() == GuardStatus::UNKNOWN) {
    print("STATE\nUNKNOWN\n");
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
  return code_of(status.state());
}

int show_check(const command_line& given) {
  const check_result result = check(read_status(given.status_file));
  print(already_escaped(result.line + "\n"));
  return result.exit_code;
}

// For a monitor 2 is critical, so a wrong command line with --check ends with 3.
int code_of_wrong_usage(int argc, char** argv) {
  const bool is_check = std::any_of(
      argv, argv + argc, [](const char* given) { return std::string_view(given) == "--check"; });
  return is_check ? kCheckUnknown : static_cast<int>(exit_code::usage);
}

int run(int argc, char** argv) {
  open_closed_standard_fds();
  // A write to a closed pipe is an error of print() instead of the program's end.
  std::signal(SIGPIPE, SIG_IGN);
  interrupt stop;
  CLI::App app(kDescription, "plugin_guard");
  wrap_help(app);
  app.footer(kFooter);
  command_line given;
  declare(app, given);
  guard::options options;
  try {
    app.parse(argc, argv);
    refuse_unused_options(app, given);
    options = checked_options(given, app.count("--status-file") > 0);
  } catch (const CLI::Success& help_or_version) {
    return app.exit(help_or_version);
  } catch (const CLI::ParseError& error) {
    say(printable(parser_complaint(error)) + "\n  next:      see plugin_guard --help");
    return code_of_wrong_usage(argc, argv);
  }
  if (given.check) return show_check(given);
  if (given.status) return static_cast<int>(show_status(given));
  // A journal that reads this program's stderr would have each line twice.
  openlog("scsi-plugin-guard", stderr_is_journal() ? 0 : LOG_PERROR, LOG_DAEMON);
  guard(options, stop).run();
  return static_cast<int>(exit_code::done);
}

}  // namespace

}  // namespace vexo::tools

int main(int argc, char** argv) {
  using namespace vexo::tools;
  try {
    return run(argc, argv);
  } catch (const tool_error& error) {
    return end_with("plugin_guard", error);
  } catch (const std::exception& error) {
    say("this machine refused: " + printable(error.what()));
    return static_cast<int>(exit_code::failed);
  }
}
