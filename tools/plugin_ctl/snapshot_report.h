#ifndef TOOLS_PLUGIN_CTL_SNAPSHOT_REPORT_H_
#define TOOLS_PLUGIN_CTL_SNAPSHOT_REPORT_H_

#include <array>
#include <chrono>
#include <optional>
#include <string>

#include "common/errors.h"
#include "report.pb.h"
#include "session.h"

namespace vexo::tools {

// Reports a snapshot: on stdout a line or a JSON object for each step when it ends; on a terminal
// also how long a wait has taken and may still take.
class snapshot_report {
 public:
  snapshot_report(output_format format, std::string task_id);

  // A step that ended. Never throws: the handshake has to be ended also when nobody reads stdout
  // any more, see output_error().
  void ended(SnapshotStep step);
  // The problem that kept a step's line from being printed, if there was one.
  const std::optional<tool_error>& output_error() const { return output_error_; }

  // Shows, on a terminal, that `step` has been waiting for a host.
  void waiting(const std::string& step, std::chrono::milliseconds elapsed,
               std::chrono::milliseconds limit);

 private:
  void clear_wait();

  const output_format format_;
  const std::string task_id_;
  bool heading_printed_ = false;
  bool wait_shown_ = false;
  std::optional<tool_error> output_error_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SNAPSHOT_REPORT_H_
