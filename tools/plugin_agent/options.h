#ifndef TOOLS_PLUGIN_AGENT_OPTIONS_H_
#define TOOLS_PLUGIN_AGENT_OPTIONS_H_

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/endpoint.h"
#include "common/exit_codes.h"
#include "common/interrupt.h"
#include "common/output.h"
#include "plugin_cmd.pb.h"

namespace vexo::tools {

// The value of --lun that stands for all.
inline constexpr char kAnyLun[] = "any";

// How an agent is to behave, checked as far as it can be without the appliance.
struct agent_options {
  std::vector<endpoint> appliances;  // IPv4 addresses and host names
  std::string plugin_id;             // may be empty: then the daemon says when a split is over
  scsiplugin::PluginClient::Type type = scsiplugin::PluginClient::UNKNOWN;
  std::vector<std::string> luns;
  bool any_lun = false;
  std::string hooks_dir;                  // empty for none
  std::vector<std::string> mount_points;  // to be frozen by the agent itself
  // Whether a snapshot goes on without the hooks that are refused. Only when file systems are
  // frozen: otherwise nothing would have brought the host to rest.
  bool tolerates_refused_hooks = false;
  std::chrono::milliseconds max_freeze = std::chrono::seconds(30);
  // How much of max_freeze must be left when the host departs.
  std::chrono::milliseconds hold = std::chrono::seconds(20);
  std::chrono::milliseconds poll = std::chrono::seconds(1);
  std::chrono::milliseconds hook_timeout = std::chrono::seconds(10);
  std::chrono::milliseconds max_mirror = std::chrono::hours(1);
  std::string run_dir = "/run/plugin_agent";
  std::string metrics;  // a file; empty for none
  bool verbose = false;
  bool thaw_and_exit = false;
  // The verb, which is done instead of serving; empty for none.
  std::function<exit_code(const agent_options& options, interrupt& stop)> verb;
  // Which options the verb needs.
  enum class need {
    run_dir,
    freezing,       // all but --appliance and --lun
    all_unchecked,  // all, as they are written: not compared with this host
    all
  };
  need needs = need::all;
  output_format format = output_format::table;
  std::chrono::milliseconds rehearse_for = std::chrono::seconds(1);
  std::string withdraw;  // the LUN whose departure is only to be taken back; empty for none

  bool freezes() const { return !mount_points.empty() || !hooks_dir.empty(); }
  // Whether the command is about a LUN of this host, by any of its identifiers.
  bool concerns(const scsiplugin::InitSnapshotReq& request) const;
};

// Throws std::runtime_error, with a sentence for the user, when what is mounted there cannot be
// frozen yet, and std::invalid_argument when it never can be.
void check_mount_point(const std::string& path, const agent_options& options);

// Reads the command line, and the file it names with --config. Empty when the program has to end
// with the code `end`: help or version has been printed, or on stderr what is wrong with the
// options.
std::optional<agent_options> parse_agent_options(int argc, char** argv, exit_code& end);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_OPTIONS_H_
