#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "session.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

constexpr char kDescription[] =
    "Asks and drives a SCSI plugin server: who is subscribed, what it says of a LUN, and the "
    "whole\n"
    "local side of a snapshot.";

constexpr char kExitCodes[] =
    "Exit codes: 0 done, 1 the daemon answered no, 2 usage, 3 unreachable or deadline passed,\n"
    "4 any other failure, 5 interrupted.\n"
    "\n"
    "Example:\n"
    "  plugin_ctl list\n"
    "  plugin_ctl --target 10.0.0.7 -o json lun support --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";

// Seconds as people write them, 0.001 to a day.
std::chrono::milliseconds parse_seconds(const std::string& text) {
  constexpr double kLongest = 86400;
  double seconds = 0;
  const auto* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || rest != end || !(seconds >= 0.001 && seconds <= kLongest)) {
    throw std::invalid_argument("\"" + text + "\" is no number of seconds from 0.001 to 86400");
  }
  return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(seconds * 1000));
}

// Hands an option's text to `parse`, whose std::invalid_argument becomes a usage error.
template <class Parse>
std::function<void(const std::string&)> parsed_by(const std::string& option, Parse parse) {
  return [option, parse](const std::string& text) {
    try {
      parse(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(option, error.what());
    }
  };
}

void add_global_options(CLI::App& app, session& with) {
  app.add_option_function<std::string>("-t,--target",
                                       parsed_by("--target",
                                                 [&](const auto& text) {
                                                   with.where = parse_endpoint(text);
                                                   with.target_given = true;
                                                 }),
                                       "The daemon: unix:///path, HOST or HOST:PORT (port " +
                                           std::to_string(kDefaultPort) + " if not given)")
      ->type_name("ENDPOINT")
      ->default_str(kUnixEndpoint);
  app.add_option_function<std::string>(
         "--timeout",
         parsed_by("--timeout", [&](const auto& text) { with.timeout = parse_seconds(text); }),
         "How long one call may take; 5, or 65 for the two that wait up to 60 s for a host")
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

// The command line as far as it was understood: "plugin_ctl lun support".
std::string understood(const CLI::App& app) {
  std::string text = app.get_name();
  for (const CLI::App* verb : app.get_subcommands()) text += " " + understood(*verb);
  return text;
}

// What is wrong with the command line. The parser looks for a missing verb before it looks at the
// words it could not place, but the user's mistake is the word.
std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const auto not_understood = app.remaining(true);
  if (not_understood.empty()) return error.what();
  return "\"" + not_understood.front() + "\" is not understood";
}

int run(int argc, char** argv) {
  // A reader that goes away is an error of print(), after which there may be things to put in
  // order; it must not strike.
  std::signal(SIGPIPE, SIG_IGN);
  // Host names mean here what they mean to every other program of the machine, and not only what
  // its DNS servers say.
  setenv("GRPC_DNS_RESOLVER", "native", 0);  // NOLINT(concurrency-mt-unsafe): no threads yet
  interrupt stop;
  session with(stop);

  CLI::App app(kDescription, "plugin_ctl");
  app.footer(kExitCodes);
  app.require_subcommand(1);
  app.fallthrough();  // global options are welcome after the verb too
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
    say(printable(complaint(app, error)) + "\n  next:      see " + printable(understood(app)) +
        " --help");
    return static_cast<int>(exit_code::usage);
  }
  try {
    return static_cast<int>(with.action());
  } catch (const tool_error& error) {
    say(error.text);
    return static_cast<int>(error.code);
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
