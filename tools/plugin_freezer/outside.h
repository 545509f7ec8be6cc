#ifndef TOOLS_PLUGIN_FREEZER_OUTSIDE_H_
#define TOOLS_PLUGIN_FREEZER_OUTSIDE_H_

#include <chrono>
#include <deque>

#include "common/unique_fd.h"
#include "plugin_freezer/children.h"
#include "plugin_freezer/report.h"

namespace vexo::tools {

// Everything that the freezer listens to: the agent, a SIGTERM and its own children. All other
// signals that can be blocked are.
class outside {
 public:
  explicit outside(int socket);

  // Blocks until something has happened, or `until`; then the members below are up to date.
  void wait(std::chrono::steady_clock::time_point until);

  reporter report;
  children programs;
  std::deque<FreezerRequest> requests;  // that nobody has answered
  bool agent_gone = false;              // never without a socket
  bool terminated = false;              // by SIGTERM, SIGINT or SIGHUP

 private:
  unique_fd signals_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_OUTSIDE_H_
