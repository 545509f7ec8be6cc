#ifndef TOOLS_PLUGIN_AGENT_HOST_FACTS_H_
#define TOOLS_PLUGIN_AGENT_HOST_FACTS_H_

#include <string>
#include <vector>

#include "agent_report.pb.h"
#include "plugin_agent/options.h"

namespace vexo::tools {

// The hooks and file systems that the options name, as they are on this host now. All text has
// passed printable(). The functions read directories and open mount points, and block while those
// do.

// The hooks, also refused ones. `problem` is set when none can be run.
std::vector<HookFacts> hook_facts(const agent_options& options, std::string& problem);
// The file systems of --fs.
std::vector<FileSystemFacts> file_system_facts(const agent_options& options);

// Both.
struct host_facts {
  explicit host_facts(const agent_options& options)
      : hooks(hook_facts(options, hooks_problem)), file_systems(file_system_facts(options)) {}
  std::string hooks_problem;
  std::vector<HookFacts> hooks;
  std::vector<FileSystemFacts> file_systems;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOST_FACTS_H_
