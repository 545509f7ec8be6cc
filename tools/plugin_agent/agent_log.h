#ifndef TOOLS_PLUGIN_AGENT_AGENT_LOG_H_
#define TOOLS_PLUGIN_AGENT_AGENT_LOG_H_

#include <spdlog/logger.h>

#include <string>

namespace vexo::tools {

// The agent's log: a line each on stderr, gRPC's own included. Any thread may log.
spdlog::logger& agent_log();

// A line that is one JSON object and nothing else, for programs that read the log.
void log_record(const std::string& json);

// While one of these lives, what is logged stays in memory; then it is written. stderr may lead to
// a file system that is frozen, be it through a pipe and another program's hands.
class log_hold {
 public:
  log_hold();
  ~log_hold();
  log_hold(const log_hold&) = delete;
  log_hold& operator=(const log_hold&) = delete;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_AGENT_LOG_H_
