#ifndef TOOLS_COMMON_DAEMON_LOG_H_
#define TOOLS_COMMON_DAEMON_LOG_H_

#include <optional>
#include <string>
#include <string_view>

namespace vexo::tools {

// The host of a daemon's log line "push command to plugin_id=ID ip=ADDRESS", as ID (ADDRESS); empty
// for any other line.
std::optional<std::string> pushed_host(std::string_view log_line);

// The host to which the daemon of this machine last pushed a command, for people:
// `"esx-7 (10.0.0.7)", 4 s ago`. While the daemon waits for a stalled host, that is the host. Read
// from the journal, from the lines of the process that logged last. Empty when there is no such
// line, when this user may not read the journal, or when reading takes longer than a second. Never
// throws.
std::string last_pushed_host();

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_DAEMON_LOG_H_
