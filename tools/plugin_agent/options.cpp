#include "plugin_agent/options.h"

#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "common/help_text.h"
#include "common/journal.h"
#include "common/number_option.h"
#include "common/plugin_type.h"
#include "common/text.h"
#include "plugin_agent/hooks.h"
#include "plugin_agent/options_file.h"
#include "plugin_agent/verbs.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

// Read by the service's unit.
constexpr char kServiceFile[] = "/etc/plugin_agent/plugin_agent.toml";
constexpr double kLongestFreeze = 60;  // as long as the appliance waits for a host

constexpr char kExamples[] = R"(
Examples:
  # Freeze two file systems for snapshots of one LUN:
  plugin_agent --appliance nas1 --lun 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6 --fs /srv/db --fs /srv/files

  # Databases brought to rest by hooks, everything said in a file:
  plugin_agent --config /etc/plugin_agent/plugin_agent.toml

  # Are these options right, and do the hooks work?
  plugin_agent check --config /etc/plugin_agent/plugin_agent.toml
  plugin_agent rehearse --config /etc/plugin_agent/plugin_agent.toml

  # Thaw what any agent of this host has frozen, living or not (as systemd's ExecStopPost= does):
  plugin_agent --thaw-and-exit

Hooks are the executables of the --hooks directory, run in name order with one argument: prepare,
freeze or thaw. Exit codes: 0 told to stop, done, or --help; 1 a check fails, or a
rehearsal was not as asked; 2 usage; 3 no answer; 4 failure on this host; 5 interrupted.)";

std::string host_name() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Options as they were given; checked and converted afterwards.
struct words {
  std::optional<std::string> config;
  std::vector<std::string> appliances;
  std::optional<std::string> hooks_dir;
  std::string refused_hooks = "fail";
  std::optional<double> hold;
};

void declare(CLI::App& app, agent_options& options, words& given) {
  app.set_version_flag("--version", "plugin_agent " VEXO_TOOLS_VERSION);
  app.add_option("--config", given.config, "Read these options from a TOML file: lun = [\"...\"]")
      ->type_name("FILE")
      ->configurable(false);
  app.footer(kExamples);
  app.add_option("--appliance", given.appliances,
                 "HOST[:PORT] of an appliance to serve, reached by IPv4 (repeatable)");
  app.add_option("--plugin-id", options.plugin_id,
                 "Name to subscribe under, one for each agent of an appliance")
      ->default_str("this host's name");
  add_type_option(app, options.type, "Kind of host to subscribe as");
  app.add_option("--lun", options.luns,
                 "Identifier (page 80h, page 83h or UUID) of a LUN this host uses (repeatable); "
                 "\"any\" takes part in every snapshot");
  app.add_option("--hooks", given.hooks_dir, "Directory of the hooks")->type_name("DIR");
  app.add_option("--refused-hooks", given.refused_hooks,
                 "When a hook is refused (it is not executable, or others may write to it): fail "
                 "every snapshot, or warn and take it without the hook, at most "
                 "\"filesystem-consistent\", if --fs is given")
      ->check(CLI::IsMember({"fail", "warn"}))
      ->capture_default_str();
  app.add_option("--fs", options.mount_points,
                 "Mount point of a file system that the agent freezes itself (repeatable)")
      ->type_name("DIR");
  add_seconds(app, "--max-freeze", options.max_freeze, 0.1, kLongestFreeze,
              "Seconds after which the host is thawed whatever the appliance does");
  app.add_option("--hold", given.hold,
                 "Seconds of --max-freeze that must be left when the host is reported to be at "
                 "rest: longer than the appliance's split may take (its --max-split) and 3 s")
      ->check(number_between(0.05, kLongestFreeze))
      ->type_name(kSeconds)
      ->default_str("20, or two thirds of --max-freeze");
  add_seconds(app, "--poll", options.poll, 0.05, 60,
              "The longest pause between two questions to the appliance, in seconds");
  add_seconds(app, "--hook-timeout", options.hook_timeout, 0.1, 600,
              "Seconds that one hook may take");
  add_seconds(app, "--max-mirror", options.max_mirror, 1, 86400 * 30,
              "Seconds after which a mirror that is never done is given up");
  app.add_option("--run-dir", options.run_dir, "Where the record of a freeze is kept; on a tmpfs")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--metrics", options.metrics,
                 "Write metrics to this file, in the textfile folder of a Prometheus node exporter")
      ->type_name("FILE");
  app.add_flag("--verbose", options.verbose, "Say more in the log");
  app.add_flag("--thaw-and-exit", options.thaw_and_exit,
               "Only thaw, now, what any agent of this host has frozen, and end");
  app.add_option("--withdraw", options.withdraw,
                 "Only tell the appliance that this host is no longer at rest for this LUN "
                 "(plugin_freezer does, before a thaw that nobody has asked for)")
      ->type_name("LUN");
}

endpoint parse_appliance(const std::string& text) {
  endpoint parsed = parse_endpoint(text);
  if (parsed.kind == endpoint::family::ipv6 || parsed.kind == endpoint::family::unix_socket) {
    throw std::invalid_argument("--appliance " + text +
                                ": commands are pushed to IPv4 peers only; give a host name or an "
                                "IPv4 address");
  }
  return parsed;
}

// Two subscriptions under one name would end each other for ever.
void add_appliance(agent_options& options, const std::string& text) {
  auto parsed = parse_appliance(text);
  for (const auto& other : options.appliances) {
    if (other.text == parsed.text) {
      throw std::invalid_argument("--appliance " + text + " is given twice");
    }
  }
  options.appliances.push_back(std::move(parsed));
}

// Throws std::invalid_argument for an identifier that no appliance announces.
void check_lun(const std::string& lun) {
  constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
  constexpr std::size_t kNaaDigits = 32;
  const auto refuse = [&](const std::string& why) {
    throw std::invalid_argument("--lun " + (lun.empty() ? "" : "\"" + lun + "\" ") + why);
  };
  if (lun.empty()) refuse("is empty: name a LUN this host uses, or \"any\"");
  if (!is_utf8(lun) ||
      std::any_of(lun.begin(), lun.end(), [](unsigned char c) { return c <= ' ' || c == 127; })) {
    refuse("has blanks or control characters: one identifier is one value");
  }
  if (lun.front() == '/') refuse("is a path: \"plugin_agent luns\" shows the identifier");
  for (const char* const prefix : {"naa.", "eui.", "0x", "wwn-0x", "scsi-3"}) {
    if (lun.starts_with(prefix)) {
      refuse("begins with \"" + std::string(prefix) + "\": the appliance writes the digits alone");
    }
  }
  if (lun.size() == kNaaDigits + 1 && lun.front() == '3' &&
      lun.find_first_not_of(kHexDigits) == std::string::npos) {
    refuse("has the \"3\" of scsi_id and multipath before it: the appliance writes " +
           lun.substr(1));
  }
}

template <class Check>
void name_option_in_error(const std::string& option, Check check) {
  try {
    check();
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(option + ": " + error.what());
  }
}

void check_freeze(const agent_options& options) {
  if (!options.freezes()) return;
  name_option_in_error("--run-dir", [&] { make_run_directory(options.run_dir); });
  for (const auto& mount_point : options.mount_points) check_mount_point(mount_point, options);
  if (!options.hooks_dir.empty()) {
    name_option_in_error("--hooks", [&] { list_hooks(options.hooks_dir); });
  }
}

void convert(agent_options& options, const words& given) {
  if (options.thaw_and_exit && options.verb) {
    throw std::invalid_argument("--thaw-and-exit takes no verb");
  }
  if (options.thaw_and_exit || options.needs == agent_options::need::run_dir) return;

  const bool serves = options.needs != agent_options::need::freezing;
  if (given.appliances.empty() && serves) throw std::invalid_argument("--appliance is required");
  for (const auto& text : given.appliances) add_appliance(options, text);
  if (!options.withdraw.empty()) return;
  if (options.run_dir.empty()) throw std::invalid_argument("--run-dir is empty: name a directory");
  // The freezer has another working directory.
  options.run_dir = std::filesystem::absolute(options.run_dir);
  options.hold = given.hold ? milliseconds(std::llround(*given.hold * 1000))
                            : std::min(options.hold, options.max_freeze * 2 / 3);
  if (options.hold >= options.max_freeze) {
    throw std::invalid_argument("--hold must be less than --max-freeze");
  }
  const auto any = std::remove(options.luns.begin(), options.luns.end(), kAnyLun);
  options.any_lun = any != options.luns.end();
  options.luns.erase(any, options.luns.end());
  if (options.luns.empty() && !options.any_lun && serves) {
    throw std::invalid_argument("--lun is required: the LUNs this host uses, or \"any\"");
  }
  for (const auto& lun : options.luns) check_lun(lun);
  if (!is_utf8(options.plugin_id)) throw std::invalid_argument("--plugin-id is not UTF-8");
  if (given.hooks_dir && given.hooks_dir->empty()) {
    throw std::invalid_argument("--hooks is empty: name a directory, or leave it out");
  }
  options.hooks_dir = given.hooks_dir.value_or("");
  options.tolerates_refused_hooks = given.refused_hooks == "warn" && !options.mount_points.empty();
  if (options.needs != agent_options::need::all_unchecked) check_freeze(options);
}

// Whether the verb is about an agent, and no option says which: then it is about the service.
bool is_for_the_service(const agent_options& options, const words& given) {
  using need = agent_options::need;
  return (options.needs == need::freezing || options.needs == need::all_unchecked) &&
         given.appliances.empty() && !given.hooks_dir && options.luns.empty() &&
         options.mount_points.empty();
}

}  // namespace

void check_mount_point(const std::string& path, const agent_options& options) {
  if (std::any_of(path.begin(), path.end(), [](unsigned char c) { return c < ' ' || c == 127; })) {
    throw std::invalid_argument("--fs " + path + " has control characters");
  }
  if (!path.starts_with('/')) throw std::invalid_argument("--fs " + path + " is no absolute path");
  mount_entry mount;
  try {
    mount = open_file_systems({path}).front().mount;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("--fs " + std::string(error.what()) +
                             "; mount it first, or name a mount point as findmnt shows it");
  }
  if (access(options.run_dir.c_str(), F_OK) == 0 &&
      mount.device == superblock_of(options.run_dir)) {
    throw std::invalid_argument("--run-dir " + options.run_dir + " lies on " + path +
                                ", which is to be frozen; name a directory on a tmpfs");
  }
  if (cannot_be_frozen(mount.type)) {
    throw std::invalid_argument("--fs " + path + ": a file system of type " + mount.type +
                                " cannot be frozen; leave it out, and bring what is on it to rest "
                                "with a hook");
  }
}

bool agent_options::concerns(const scsiplugin::InitSnapshotReq& request) const {
  if (any_lun) return true;
  return std::any_of(luns.begin(), luns.end(), [&](const std::string& lun) {
    return lun == request.src_lun_p80() || lun == request.src_lun_p83() ||
           lun == request.src_lun_uuid();
  });
}

std::optional<agent_options> parse_agent_options(int argc, char** argv, exit_code& end) {
  CLI::App app(
      "Takes part in an appliance's snapshots as a host: brings the host's applications and file\n"
      "systems to rest while the mirror is split.",
      "plugin_agent");
  wrap_help(app);
  agent_options options;
  options.plugin_id = host_name();
  words given;
  declare(app, options, given);
  add_verbs(app, options);
  options_file file;
  const auto complain = [&](const std::exception& error, exit_code why) {
    std::cerr << journal_prefix(LOG_ERR)
              << "plugin_agent: " << printable(file.located(error.what(), app))
              << "\nRun with --help for more information.\n";
    end = why;
    return std::nullopt;
  };
  try {
    app.parse(argc, argv);
    if (!given.config && is_for_the_service(options, given)) {
      if (access(kServiceFile, F_OK) != 0) {
        throw std::invalid_argument(
            "no option says what the agent serves and freezes, and the service's file " +
            std::string(kServiceFile) + " is not there; name another one with --config");
      }
      given.config = kServiceFile;
    }
    if (given.config) file.read(*given.config, app);
    convert(options, given);
    return options;
  } catch (const CLI::Success& help_or_version) {
    app.exit(help_or_version);
    end = exit_code::done;
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    return complain(std::invalid_argument(parser_complaint(error)), exit_code::usage);
  } catch (const std::invalid_argument& error) {
    return complain(error, exit_code::usage);
  } catch (const std::exception& error) {
    // A volume or a directory is not there; it may be there at the next start.
    return complain(error, exit_code::failed);
  }
}

}  // namespace vexo::tools
