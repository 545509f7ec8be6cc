#ifndef TOOLS_PLUGIN_AGENT_FREEZER_PROCESS_H_
#define TOOLS_PLUGIN_AGENT_FREEZER_PROCESS_H_

#include <chrono>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "freezer.pb.h"

namespace vexo::tools {

// Where plugin_freezer is: beside this program, else on the PATH. Throws std::runtime_error with a
// sentence for the user.
std::string freezer_path();

// A running plugin_freezer. When this object is destroyed, the freezer thaws what it has frozen and
// ends. The kernel reaps it, because the agent ignores SIGCHLD.
class freezer_process {
 public:
  // Starts it with this request. Throws std::runtime_error.
  explicit freezer_process(const FreezerRequest& request);
  // Any thread may call. False when it has gone.
  bool send(const FreezerRequest& request) const;

  // The next report, if there is one. Lines for the log are logged here, and not returned. `gone`
  // is set when there will be no more reports.
  std::optional<FreezerReport> receive(bool& gone) const;

  // Readable when there is a report, or when the freezer has ended.
  int fd() const { return socket_.get(); }

  // For a freezer that hangs.
  void kill() const;

 private:
  unique_fd socket_;
  unique_fd process_;
};

// Has a freezer thaw what is left of earlier rests in this run directory, and log that. Blocks
// until it has, or until `stop_fd` is readable; -1 for none. Throws std::runtime_error.
void recover(const std::string& run_dir, std::chrono::milliseconds hook_timeout, int stop_fd);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_FREEZER_PROCESS_H_
