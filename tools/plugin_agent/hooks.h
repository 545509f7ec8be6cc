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

// A sentence for each refused hook, such as "hook 50-mysql is refused: it is not executable".
std::vector<std::string> refusals(const hook_listing& listing);

// The programs in `directory`, without hidden files and editors' backups. A file is refused when it
// cannot be executed, and when somebody other than root, the agent's user or its group could have
// written it: hooks run with the agent's rights. Throws std::runtime_error with a sentence for the
// user when the directory cannot be read, or when such people could write to it.
hook_listing list_hooks(const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOOKS_H_
