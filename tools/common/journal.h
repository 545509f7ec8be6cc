#ifndef TOOLS_COMMON_JOURNAL_H_
#define TOOLS_COMMON_JOURNAL_H_

#include <string>

namespace vexo::tools {

// Whether stderr leads straight to systemd's journal, as it does for a service. The journal has the
// time of each line itself.
bool stderr_is_journal();

// What a line on stderr begins with, for the journal to know its priority, one of syslog's: "<3>".
// Empty when stderr leads elsewhere.
std::string journal_prefix(int priority);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_JOURNAL_H_
