#ifndef TOOLS_COMMON_ERRORS_H_
#define TOOLS_COMMON_ERRORS_H_

#include <grpcpp/grpcpp.h>

#include <stdexcept>
#include <string>

#include "common/endpoint.h"
#include "common/exit_codes.h"
#include "common/text.h"

namespace vexo::tools {

// Why a tool failed, in the three sentences that a user needs.
struct problem {
  exit_code code = exit_code::failed;
  std::string tried;      // "PluginConnList at unix:///tmp/iscsi/plugin_server.sock"
  std::string came_back;  // "UNAVAILABLE: Connection refused"
  std::string next;       // "start the daemon, or ..."

  // Several lines without a newline at the end.
  shown_text text() const;
};

// Carries a problem to main, which prints it and exits with its code.
class tool_error : public std::runtime_error {
 public:
  explicit tool_error(const problem& what)
      : std::runtime_error(what.text().str()), why(what), code(what.code), text(what.text()) {}
  problem why;
  exit_code code;
  shown_text text;
};

// Ends a tool: writes what went wrong to stderr, with the program's name before it, unless the
// cause is a closed pipe. The exit code.
int end_with(const shown_text& program, const tool_error& error);

// `done` for OK, `failed` for CANCELLED: only the caller knows whether a signal was the cause.
exit_code exit_code_of(const grpc::Status& status);

// "DEADLINE_EXCEEDED: Deadline Exceeded": the code's name, and the text that came with it.
std::string status_text(const grpc::Status& status);

// For a call that did not end with OK. `what` names it in the user's words.
problem call_problem(const std::string& what, const endpoint& where, const grpc::Status& status);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_ERRORS_H_
