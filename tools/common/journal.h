#ifndef TOOLS_COMMON_JOURNAL_H_
#define TOOLS_COMMON_JOURNAL_H_

#include <string>

namespace vexo::tools {

// Whether stderr leads straight to systemd's journal, as it does for a service. The journal adds
// the time to each line.
bool stderr_is_journal();

// The beginning of a line on stderr that tells the journal its priority, one of syslog's: "<3>".
// Empty when stderr leads elsewhere.
std::string journal_prefix(int priority);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_JOURNAL_H_
