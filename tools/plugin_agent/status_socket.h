#ifndef TOOLS_PLUGIN_AGENT_STATUS_SOCKET_H_
#define TOOLS_PLUGIN_AGENT_STATUS_SOCKET_H_

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent_report.pb.h"
#include "common/event.h"
#include "common/unique_fd.h"

namespace vexo::tools {

// A socket of this process in the run directory. A client that connects gets one packet with the
// agent's status, and the connection is closed. Nothing is read from the client and nothing waits
// for it, so that none can hold the agent up. Root and the agent's group may connect.
class status_socket {
 public:
  // `describe` is called by a thread of this object. Removes the sockets of agents that have ended.
  // Throws std::runtime_error with a sentence for the user.
  status_socket(const std::string& run_dir, std::function<AgentStatus()> describe);
  ~status_socket();
  status_socket(const status_socket&) = delete;
  status_socket& operator=(const status_socket&) = delete;

 private:
  void serve();

  const std::string path_;
  const std::function<AgentStatus()> describe_;
  const unique_fd socket_;
  event stop_;
  std::thread thread_;
};

// The answer of one agent.
struct agent_answer {
  int pid = 0;
  AgentStatus status;
  std::string error;  // why there is none: the agent is stopped, or hangs
};

// Asks every living agent of this run directory, and waits some seconds for each. Throws
// std::runtime_error with a sentence for the user when this user may not ask.
std::vector<agent_answer> ask_agents(const std::string& run_dir);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_STATUS_SOCKET_H_
