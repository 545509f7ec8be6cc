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

// Reports a snapshot: on stdout a line or a JSON object for each step when it ends, and one for the
// verdict; on a terminal also how long a wait has taken and may still take.
class snapshot_report {
 public:
  // With `of_several` each line names the LUN that it is about.
  snapshot_report(output_format format, bool of_several)
      : format_(format), of_several_(of_several) {}

  // These never throw: the handshake has to be ended also when nobody reads stdout any more, see
  // output_error().
  void ended(const SnapshotStep& step);
  void verdict(const SnapshotVerdict& verdict);
  // The problem that kept a line from being printed, if there was one.
  const std::optional<tool_error>& output_error() const { return output_error_; }

  // Writes a message to stderr.
  void explain(const shown_text& text);
  // Shows, on a terminal, that `step` has been waiting for a host.
  void waiting(const std::string& step, std::chrono::milliseconds elapsed,
               std::chrono::milliseconds limit);

 private:
  void clear_wait();
  void print_line(const google::protobuf::Message& json, const shown_text& row);

  const output_format format_;
  const bool of_several_;
  bool heading_printed_ = false;
  bool wait_shown_ = false;
  std::optional<tool_error> output_error_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SNAPSHOT_REPORT_H_
