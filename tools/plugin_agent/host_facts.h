#ifndef TOOLS_PLUGIN_AGENT_HOST_FACTS_H_
#define TOOLS_PLUGIN_AGENT_HOST_FACTS_H_

#include <chrono>
#include <string>
#include <vector>

#include "agent_report.pb.h"
#include "plugin_agent/options.h"

namespace vexo::tools {

// What the options say is to be frozen, as it is on this host now. Text in these has passed
// printable(). They read directories and open mount points, and so may block as long as those do.

// Those of --hooks, with those that are refused. `problem` is set when none can be run.
std::vector<HookFacts> hook_facts(const agent_options& options, std::string& problem);
// Those of --fs.
std::vector<FileSystemFacts> file_system_facts(const agent_options& options);

// Both.
struct host_facts {
  explicit host_facts(const agent_options& options)
      : hooks(hook_facts(options, hooks_problem)), file_systems(file_system_facts(options)) {}
  std::string hooks_problem;
  std::vector<HookFacts> hooks;
  std::vector<FileSystemFacts> file_systems;
};

// "2026-11-21T07:43:19Z"
std::string utc_text(std::chrono::system_clock::time_point when);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOST_FACTS_H_
