#include "plugin_agent/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <cmath>
#include <iostream>
#include <map>
#include <stdexcept>

#include "common/text.h"
#include "plugin_agent/file_system.h"
#include "plugin_agent/freeze_turn.h"
#include "plugin_agent/hooks.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;

constexpr char kAnyLun[] = "any";
constexpr double kLongestFreeze = 60;  // as long as the appliance waits for a host

constexpr char kExamples[] = R"(
Examples:
  # Freeze two file systems for snapshots of one LUN:
  plugin_agent --appliance nas1 --lun 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6 --fs /srv/db --fs /srv/files

  # Databases brought to rest by hooks, everything said in a file:
  plugin_agent --config /etc/plugin_agent/plugin_agent.toml

  # After a crash: thaw what an agent has left frozen, and end (for systemd's ExecStopPost=):
  plugin_agent --thaw-and-exit

Hooks are the executables of the --hooks directory, run in name order with one argument: prepare,
freeze or thaw. Exit codes: 0 told to stop, or --help; 2 usage; 4 failure on this host.)";

std::string host_name() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

milliseconds from_seconds(double seconds) { return milliseconds(std::llround(seconds * 1000)); }

// The words as given on the command line; checked and converted afterwards.
struct words {
  std::vector<std::string> appliances;
  std::string type = "unknown";
  double max_freeze = 30;
  double poll = 1;
  double hook_timeout = 10;
  double max_mirror = 3600;
};

void declare(CLI::App& app, agent_options& options, words& given) {
  app.set_version_flag("--version", "plugin_agent " VEXO_TOOLS_VERSION);
  app.set_config("--config", "", "Read these options from a TOML or INI file: lun = [\"...\"]")
      ->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.footer(kExamples);
  app.add_option("--appliance", given.appliances,
                 "HOST[:PORT] of an appliance to serve, reached by IPv4 (repeatable)");
  app.add_option("--plugin-id", options.plugin_id,
                 "Name to subscribe under, one for each agent of an appliance")
      ->capture_default_str();
  app.add_option("--type", given.type, "Kind of host to subscribe as")
      ->check(CLI::IsMember({"vmware", "windows", "unknown"}))
      ->capture_default_str();
  app.add_option("--lun", options.luns,
                 "Identifier (page 80h, page 83h or UUID) of a LUN this host uses (repeatable); "
                 "\"any\" takes part in every snapshot");
  app.add_option("--hooks", options.hooks_dir, "Directory of the hooks")->type_name("DIR");
  app.add_option("--fs", options.mount_points,
                 "Mount point of a file system that the agent freezes itself (repeatable)")
      ->type_name("DIR");
  app.add_option("--max-freeze", given.max_freeze,
                 "Seconds after which the host is thawed whatever the appliance does")
      ->check(CLI::Range(0.1, kLongestFreeze))
      ->capture_default_str();
  app.add_option("--poll", given.poll, "Seconds between two questions to the appliance")
      ->check(CLI::Range(0.05, 60.0))
      ->capture_default_str();
  app.add_option("--hook-timeout", given.hook_timeout, "Seconds that one hook may take")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  app.add_option("--max-mirror", given.max_mirror,
                 "Seconds after which a mirror that is never done is given up")
      ->check(CLI::Range(1.0, 86400.0 * 30))
      ->capture_default_str();
  app.add_option("--run-dir", options.run_dir, "Where the record of a freeze is kept; on a tmpfs")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_flag("--verbose", options.verbose, "Say more in the log");
  app.add_flag("--thaw-and-exit", options.thaw_and_exit,
               "Only thaw what an earlier agent left frozen");
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

void refuse_control_characters(const std::string& option, const std::string& value) {
  if (std::any_of(value.begin(), value.end(),
                  [](unsigned char c) { return c < ' ' || c == 127; })) {
    throw std::invalid_argument(option + " " + printable(value) + " has control characters");
  }
}

void check_freeze(const agent_options& options) {
  if (!options.freezes()) return;
  make_run_directory(options.run_dir);
  const dev_t run_device = device_of(options.run_dir);
  // A volume may be mounted later, so one that is missing now is no usage error.
  for (const auto& mount_point : options.mount_points) {
    refuse_control_characters("--fs", mount_point);
    if (!mount_point.starts_with('/')) {
      throw std::invalid_argument("--fs " + mount_point + " is no absolute path");
    }
    if (access(mount_point.c_str(), F_OK) == 0 && device_of(mount_point) == run_device) {
      throw std::invalid_argument("--run-dir " + options.run_dir + " lies on " + mount_point +
                                  ", which is to be frozen; name a directory on a tmpfs");
    }
  }
  if (!options.hooks_dir.empty()) list_hooks(options.hooks_dir);
}

void convert(agent_options& options, const words& given) {
  static const std::map<std::string, scsiplugin::PluginClient::Type> types = {
      {"unknown", scsiplugin::PluginClient::UNKNOWN},
      {"vmware", scsiplugin::PluginClient::VMWARE},
      {"windows", scsiplugin::PluginClient::WINDOWS}};
  options.type = types.at(given.type);
  options.max_freeze = from_seconds(given.max_freeze);
  options.poll = from_seconds(given.poll);
  options.hook_timeout = from_seconds(given.hook_timeout);
  options.max_mirror = from_seconds(given.max_mirror);
  if (options.thaw_and_exit) return;

  if (given.appliances.empty()) throw std::invalid_argument("--appliance is required");
  for (const auto& text : given.appliances) options.appliances.push_back(parse_appliance(text));
  const auto any = std::remove(options.luns.begin(), options.luns.end(), kAnyLun);
  options.any_lun = any != options.luns.end();
  options.luns.erase(any, options.luns.end());
  if (options.luns.empty() && !options.any_lun) {
    throw std::invalid_argument("--lun is required: the LUNs this host uses, or \"any\"");
  }
  if (!is_utf8(options.plugin_id)) throw std::invalid_argument("--plugin-id is not UTF-8");
  check_freeze(options);
}

}  // namespace

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
  agent_options options;
  options.plugin_id = host_name();
  words given;
  declare(app, options, given);
  try {
    app.parse(argc, argv);
    convert(options, given);
    return options;
  } catch (const CLI::ParseError& error) {
    end = app.exit(error) == 0 ? exit_code::done : exit_code::usage;
  } catch (const std::exception& error) {
    std::cerr << "plugin_agent: " << error.what() << "\nRun with --help for more information.\n";
    end = exit_code::usage;
  }
  return std::nullopt;
}

}  // namespace vexo::tools
