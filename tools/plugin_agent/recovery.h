#ifndef TOOLS_PLUGIN_AGENT_RECOVERY_H_
#define TOOLS_PLUGIN_AGENT_RECOVERY_H_

#include <chrono>
#include <string>

namespace vexo::tools {

// Thaws what an earlier agent and its guardian left behind, according to the record in `run_dir`,
// and says so in the log. The hooks get no handshake's fields in their environment. Nothing to do
// is the usual case. To be called by whoever has the turn to freeze.
void thaw_left_behind(const std::string& run_dir, std::chrono::milliseconds hook_timeout);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_RECOVERY_H_
