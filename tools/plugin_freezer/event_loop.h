#ifndef TOOLS_PLUGIN_FREEZER_EVENT_LOOP_H_
#define TOOLS_PLUGIN_FREEZER_EVENT_LOOP_H_

#include <chrono>
#include <deque>

#include "common/unique_fd.h"
#include "plugin_freezer/agent_connection.h"
#include "plugin_freezer/children.h"

namespace vexo::tools {

// Everything that the freezer waits for: requests of the agent, signals, and its own children. It
// blocks all signals that can be blocked; SIGTERM, SIGINT and SIGHUP come through a signalfd.
class event_loop {
 public:
  // `socket` as for agent_connection.
  explicit event_loop(int socket);

  // Blocks until something has happened, or `until`; then the members below are up to date.
  void wait(std::chrono::steady_clock::time_point until);

  agent_connection agent;
  children programs;
  std::deque<FreezerRequest> requests;  // not answered yet
  bool agent_gone = false;              // the agent has closed the socket
  bool terminated = false;              // by SIGTERM, SIGINT or SIGHUP

 private:
  unique_fd signals_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_EVENT_LOOP_H_
