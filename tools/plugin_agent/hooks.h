#ifndef TOOLS_PLUGIN_AGENT_HOOKS_H_
#define TOOLS_PLUGIN_AGENT_HOOKS_H_

#include <string>
#include <vector>

namespace vexo::tools {

struct hook {
  std::string name;
  std::string path;
};

struct hook_listing {
  std::vector<hook> usable;  // in name order
  struct refusal {
    std::string name;
    std::string reason;
  };
  std::vector<refusal> refused;
};

// "hook 50-mysql is refused: it is not executable", of each that is.
std::vector<std::string> refusals(const hook_listing& listing);

// The programs in `directory`: regular files, not hidden and no editor's backups. Refused are those
// that cannot be executed, and those that somebody other than root and the agent's own user and
// group could have written: they run with the agent's rights. Throws std::runtime_error with a
// sentence for the user when the directory cannot be read or could be rewritten itself.
hook_listing list_hooks(const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOOKS_H_
