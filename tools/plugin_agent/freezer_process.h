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

// A running plugin_freezer. When this is destroyed it undoes whatever it has frozen, and ends. It
// is for the kernel to reap: the agent ignores SIGCHLD.
class freezer_process {
 public:
  // Starts it with this request. Throws std::runtime_error.
  explicit freezer_process(const FreezerRequest& request);
  // Any thread may call. False when it has gone.
  bool send(const FreezerRequest& request) const;

  // The next report, if there is one. What it has for the log is written there, and not returned.
  // `gone` is set when there will be no more.
  std::optional<FreezerReport> receive(bool& gone) const;

  // Readable when there is a report, or when it has gone.
  int fd() const { return socket_.get(); }

  // Ends it when it hangs.
  void kill() const;

 private:
  unique_fd socket_;
  unique_fd process_;
};

// Has the freezer thaw what is left of earlier rests in this run directory, says so in the log, and
// waits until it has, or `stop_fd` is readable; -1 for none. Throws std::runtime_error.
void recover(const std::string& run_dir, std::chrono::milliseconds hook_timeout, int stop_fd);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_FREEZER_PROCESS_H_
