#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "common/help_text.h"
#include "common/number_option.h"
#include "common/standard_fds.h"
#include "session.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

constexpr char kDescription[] =
    "Shows which hosts are subscribed to a SCSI plugin server and whether it supports a LUN, and\n"
    "takes snapshots as a local caller does.";

constexpr char kExitCodes[] =
    "Exit codes: 0 done, 1 the daemon answered no, 2 usage, 3 unreachable or deadline passed,\n"
    "4 any other failure, 5 interrupted.\n"
    "\n"
    "Example:\n"
    "  plugin_ctl list\n"
    "  plugin_ctl --target 10.0.0.7 -o json lun support --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";

void add_global_options(CLI::App& app, session& with) {
  app.add_option_function<std::string>(
         "-t,--target",
         [&](const std::string& text) {
           try {
             with.where = parse_endpoint(text);
             with.target_given = true;
           } catch (const std::invalid_argument& error) {
             throw CLI::ValidationError("--target", error.what());
           }
         },
         "The daemon: unix:///path, HOST or HOST:PORT (port " + std::to_string(kDefaultPort) +
             " if not given)")
      ->type_name("ENDPOINT")
      ->default_str(kUnixEndpoint);
  app.add_option_function<double>(
         "--timeout",
         [&](double seconds) {
           with.timeout = std::chrono::milliseconds(std::llround(seconds * 1000));
         },
         "How long one call may take; 5, or 65 for the two that wait up to 60 s for a host")
      ->check(number_between(0.001, 86400.0))
      ->type_name("SECONDS");
  app.add_option_function<std::string>(
         "-o,--output",
         [&](const std::string& text) {
           with.format = text == "json" ? output_format::json : output_format::table;
         },
         "A table for people, or json for programs")
      ->check(CLI::IsMember({"table", "json"}))
      ->type_name("FORMAT")
      ->default_str("table");
  app.set_version_flag("--version", "plugin_ctl " VEXO_TOOLS_VERSION);
}

// The program and the verbs that the parser found: "plugin_ctl lun support".
std::string understood(const CLI::App& app) {
  std::string text = app.get_name();
  for (const CLI::App* verb : app.get_subcommands()) text += " " + understood(*verb);
  return text;
}

bool has_option(const CLI::App& app, const std::string& name) {
  const auto verbs = app.get_subcommands();
  return verbs.empty() ? app.get_option_no_throw(name) != nullptr
                       : has_option(*verbs.front(), name);
}

// What is wrong with the command line. The parser complains of a missing verb even when the mistake
// is a word that it does not know.
std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const auto not_understood = app.remaining(true);
  if (not_understood.empty()) return parser_complaint(error);
  const std::string& first = not_understood.front();
  const bool is_lun = !first.starts_with("-") && has_option(app, "--p80");
  return "\"" + first + "\" is not understood" + (is_lun ? ": give a LUN with --p80" : "");
}

// The help of a verb does not explain the options of all verbs.
bool is_about_global_option(const CLI::App& app, const std::string& complaint) {
  const auto options = app.get_options();
  return std::any_of(options.begin(), options.end(), [&](const CLI::Option* option) {
    return complaint.starts_with(option->get_name());
  });
}

int run(int argc, char** argv) {
  open_closed_standard_fds();
  // The status of a command can be read only if this signal is not ignored, as it is when the
  // caller ignores it.
  std::signal(SIGCHLD, SIG_DFL);
  // A write to a closed pipe is an error of print() instead of the program's end: a verb may have
  // to clean up before the program ends.
  std::signal(SIGPIPE, SIG_IGN);
  // Host names are looked up as every other program of the machine does it, and not by DNS alone.
  setenv("GRPC_DNS_RESOLVER", "native", 0);  // NOLINT(concurrency-mt-unsafe): no threads yet
  interrupt stop;
  session with(stop);

  CLI::App app(kDescription, "plugin_ctl");
  wrap_help(app);
  app.footer(kExitCodes);
  app.require_subcommand(1);
  app.fallthrough();  // global options may stand behind the verb too
  add_global_options(app, with);
  add_registry_verbs(app, with);
  add_subscribe_verb(app, with);
  add_lun_verbs(app, with);
  add_publish_verbs(app, with);
  add_snapshot_verb(app, with);
  add_probe_verb(app, with);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help_or_version) {
    return app.exit(help_or_version);
  } catch (const CLI::ParseError& error) {
    const std::string what = complaint(app, error);
    say(printable(what) + "\n  next:      see " +
        printable(is_about_global_option(app, what) ? app.get_name() : understood(app)) +
        " --help");
    return static_cast<int>(exit_code::usage);
  }
  try {
    return static_cast<int>(with.action());
  } catch (const tool_error& error) {
    return end_with("plugin_ctl", error);
  }
}

}  // namespace

}  // namespace vexo::tools

int main(int argc, char** argv) {
  try {
    return vexo::tools::run(argc, argv);
  } catch (const std::exception& error) {
    vexo::tools::say("this machine refused: " + vexo::tools::printable(error.what()));
    return static_cast<int>(vexo::tools::exit_code::failed);
  }
}
