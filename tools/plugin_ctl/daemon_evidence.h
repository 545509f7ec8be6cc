#ifndef TOOLS_PLUGIN_CTL_DAEMON_EVIDENCE_H_
#define TOOLS_PLUGIN_CTL_DAEMON_EVIDENCE_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace vexo::tools {

// "1003 of 1024 files open" of a running process, "? files open" when that may not be seen.
std::string open_files(pid_t pid);

// What can be seen of a process that does not serve, one line each: threads, open files, whether it
// computes, and its threads' stacks if eu-stack or gdb is installed and may look. Takes some
// seconds at most, in which the process may stand still; never throws for what cannot be had.
std::vector<std::string> evidence_of(pid_t pid);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_DAEMON_EVIDENCE_H_
