#ifndef TOOLS_PLUGIN_FREEZER_REPORT_H_
#define TOOLS_PLUGIN_FREEZER_REPORT_H_

#include <optional>
#include <string>

#include "freezer.pb.h"

namespace vexo::tools {

// Where the freezer says what it does: to the agent, over the socket; without one to stderr, when
// everything is over, since that may lead to what is frozen.
class reporter {
 public:
  // `socket` is borrowed; -1 for none.
  explicit reporter(int socket) : socket_(socket) {}
  ~reporter();
  reporter(const reporter&) = delete;
  reporter& operator=(const reporter&) = delete;

  // Never blocks for long and never fails: an agent that does not read misses something.
  void send(const FreezerReport& report);
  void warn(const std::string& text) { say(text, false); }
  void error(const std::string& text) { say(text, true); }

  // The next request, if there is one. `closed` is set when there will be no more.
  std::optional<FreezerRequest> receive(bool& closed);

  int fd() const { return socket_; }

 private:
  void say(const std::string& text, bool is_error);

  const int socket_;
  std::string lines_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_REPORT_H_
