#ifndef TOOLS_PLUGIN_AGENT_WITHDRAWAL_H_
#define TOOLS_PLUGIN_AGENT_WITHDRAWAL_H_

#include <string>
#include <vector>

#include "common/channel.h"

namespace vexo::tools {

// Takes a departure back: tells the daemon that the host is no longer at rest for this LUN, so that
// the local caller, who asks again after the split, learns that the copy is not good. Tells it
// twice, because a departure that was reported just before may arrive after the first. Blocks for
// less than a second. False when the daemon did not answer.
bool withdraw(service_stub& daemon, const std::string& lun, const std::string& plugin_id);

// The command line of this program that does the same from a process of its own, for the freezer,
// which outlives the agent.
std::vector<std::string> withdrawal_command(const std::string& lun, const std::string& appliance,
                                            const std::string& plugin_id);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_WITHDRAWAL_H_
