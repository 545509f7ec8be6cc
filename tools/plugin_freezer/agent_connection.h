#ifndef TOOLS_PLUGIN_FREEZER_AGENT_CONNECTION_H_
#define TOOLS_PLUGIN_FREEZER_AGENT_CONNECTION_H_

#include <optional>
#include <string>

#include "freezer.pb.h"

namespace vexo::tools {

// The freezer's end of the socket to its agent. A freezer without an agent (--thaw) has no socket:
// its messages go to stderr when this is destroyed, because stderr may lead to a file system that
// is frozen until then.
class agent_connection {
 public:
  // `socket` is borrowed; -1 for none.
  explicit agent_connection(int socket) : socket_(socket) {}
  ~agent_connection();
  agent_connection(const agent_connection&) = delete;
  agent_connection& operator=(const agent_connection&) = delete;

  // Never blocks and never fails: a report is lost when the agent does not read.
  void send(const FreezerReport& report);
  // Lines for the agent's log, or for stderr.
  void warn(const std::string& text) { write_line(text, false); }
  void error(const std::string& text) { write_line(text, true); }

  // The next request, if there is one. `closed` is set when there will be no more.
  std::optional<FreezerRequest> receive(bool& closed);

  int fd() const { return socket_; }

 private:
  void write_line(const std::string& text, bool is_error);

  const int socket_;
  std::string lines_;  // for stderr
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_AGENT_CONNECTION_H_
