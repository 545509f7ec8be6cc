#include "plugin_agent/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <cmath>
#include <iostream>
#include <map>
#include <stdexcept>

#include "common/number_option.h"
#include "common/text.h"
#include "plugin_agent/hooks.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/run_directory.h"

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
  std::optional<std::string> hooks_dir;
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
  app.add_option("--hooks", given.hooks_dir, "Directory of the hooks")->type_name("DIR");
  app.add_option("--fs", options.mount_points,
                 "Mount point of a file system that the agent freezes itself (repeatable)")
      ->type_name("DIR");
  app.add_option("--max-freeze", given.max_freeze,
                 "Seconds after which the host is thawed whatever the appliance does")
      ->check(number_between(0.1, kLongestFreeze))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--poll", given.poll, "Seconds between two questions to the appliance")
      ->check(number_between(0.05, 60.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--hook-timeout", given.hook_timeout, "Seconds that one hook may take")
      ->check(number_between(0.1, 600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--max-mirror", given.max_mirror,
                 "Seconds after which a mirror that is never done is given up")
      ->check(number_between(1.0, 86400.0 * 30))
      ->type_name("SECONDS")
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
  if (mount.device == superblock_of(options.run_dir)) {
    throw std::invalid_argument("--run-dir " + options.run_dir + " lies on " + path +
                                ", which is to be frozen; name a directory on a tmpfs");
  }
  if (cannot_be_frozen(mount.type)) {
    throw std::invalid_argument("--fs " + path + ": a file system of type " + mount.type +
                                " cannot be frozen; leave it out, and bring what is on it to rest "
                                "with a hook");
  }
}

void check_freeze(const agent_options& options) {
  if (!options.freezes()) return;
  make_run_directory(options.run_dir);
  for (const auto& mount_point : options.mount_points) check_mount_point(mount_point, options);
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
  if (std::find(options.luns.begin(), options.luns.end(), "") != options.luns.end()) {
    throw std::invalid_argument("--lun is empty: name a LUN this host uses, or \"any\"");
  }
  if (!is_utf8(options.plugin_id)) throw std::invalid_argument("--plugin-id is not UTF-8");
  if (given.hooks_dir && given.hooks_dir->empty()) {
    throw std::invalid_argument("--hooks is empty: name a directory, or leave it out");
  }
  options.hooks_dir = given.hooks_dir.value_or("");
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

namespace {

// An option that is not on the command line stands in the file, if there is one: what is wrong is
// then looked for there.
std::string complaint(const std::string& what, const CLI::App& app, int argc, char** argv) {
  const auto* const config = app.get_config_ptr();
  if (config->count() == 0) return what;
  const std::string option = what.substr(0, what.find_first_of(" :"));
  const bool on_command_line = std::any_of(argv, argv + argc, [&](const std::string word) {
    return word == option || word.starts_with(option + "=");
  });
  return on_command_line ? what : config->as<std::string>() + ": " + what;
}

}  // namespace

std::optional<agent_options> parse_agent_options(int argc, char** argv, exit_code& end) {
  CLI::App app(
      "Takes part in an appliance's snapshots as a host: brings the host's applications and file\n"
      "systems to rest while the mirror is split.",
      "plugin_agent");
  agent_options options;
  options.plugin_id = host_name();
  words given;
  declare(app, options, given);
  const auto complain = [&](const std::exception& error, exit_code why) {
    std::cerr << "plugin_agent: " << printable(complaint(error.what(), app, argc, argv))
              << "\nRun with --help for more information.\n";
    end = why;
    return std::nullopt;
  };
  try {
    app.parse(argc, argv);
    convert(options, given);
    return options;
  } catch (const CLI::Success& help_or_version) {
    app.exit(help_or_version);
    end = exit_code::done;
    return std::nullopt;
  } catch (const CLI::Error& error) {
    return complain(error, exit_code::usage);
  } catch (const std::invalid_argument& error) {
    return complain(error, exit_code::usage);
  } catch (const std::exception& error) {
    // A volume or a directory that is not there: it may be, the next time.
    return complain(error, exit_code::failed);
  }
}

}  // namespace vexo::tools
