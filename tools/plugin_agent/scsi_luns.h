#ifndef TOOLS_PLUGIN_AGENT_SCSI_LUNS_H_
#define TOOLS_PLUGIN_AGENT_SCSI_LUNS_H_

#include <vector>

#include "agent_report.pb.h"

namespace vexo::tools {

// The LUNs that this host sees as SCSI disks, each once though several paths lead to it, in the
// order of their devices. From sysfs, without a command to any device; needs no privilege.
std::vector<HostLun> scsi_luns();

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_SCSI_LUNS_H_
