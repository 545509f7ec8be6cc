#ifndef TOOLS_PLUGIN_CTL_SESSION_H_
#define TOOLS_PLUGIN_CTL_SESSION_H_

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/call.h"
#include "common/endpoint.h"
#include "common/errors.h"
#include "common/exit_codes.h"
#include "common/interrupt.h"
#include "common/output.h"

namespace vexo::tools {

// What to do after a signal ended a call that changes nothing in the daemon.
inline constexpr char kNothingLeftBehind[] = "nothing is left behind: call it again";

// What one run of plugin_ctl works with: what its global options say, the daemon they name, and
// the signals that end it.
class session {
 public:
  explicit session(interrupt& signals) : stop(signals) {}

  // How long a call may take: --timeout, else `otherwise`.
  call_options limits(std::chrono::milliseconds otherwise = kCallTimeout) const;

  // The daemon named by --target. Connects with the first call.
  grpc::Channel& channel();
  service_stub& stub();
  // Waits for a connection as long as a call may take. `what` names the call that needs it in error
  // messages. Throws tool_error when there is none.
  void connect(const std::string& what);

  // One call. `what` names it in error messages. Throws tool_error when there is no answer; after a
  // signal its text ends with `if_interrupted`, what the user has to do next.
  template <class Request, class Response>
  Response ask(const std::string& what,
               grpc::Status (service_stub::*method)(grpc::ClientContext*, const Request&,
                                                    Response*),
               const Request& request, const call_options& options,
               const std::string& if_interrupted = kNothingLeftBehind) {
    auto result = call(stub(), method, request, stop, options);
    if (result.answered()) return std::move(result.response);
    if (result.interrupted) throw tool_error(interrupted(what, if_interrupted));
    throw tool_error(no_answer(what, result.status));
  }

  // Why `what` did not end with OK. After a deadline it names the host that the daemon waits for,
  // as far as its log tells.
  problem no_answer(const std::string& what, const grpc::Status& status) const;
  // last_pushed_host() of the daemon at `where`; empty when that is not on this machine.
  std::string last_pushed_host() const;
  // Why a signal ended `what`.
  problem interrupted(const std::string& what, const std::string& next = kNothingLeftBehind) const;

  interrupt& stop;
  endpoint where = parse_endpoint(kUnixEndpoint);
  bool target_given = false;
  std::optional<std::chrono::milliseconds> timeout;
  output_format format = output_format::table;
  // What the verb on the command line does; set while the command line is read.
  std::function<exit_code()> action;

 private:
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<service_stub> stub_;
};

// Writes a message to stderr, with the program's name before it.
void say(const shown_text& text);

// Prints the daemon's answer to `command` about `id`. After a no, stderr says with `if_no` what to
// do next.
exit_code print_verdict(const session& with, const std::string& command, const std::string& id,
                        const google::protobuf::Message& answer, bool success,
                        const std::string& if_no);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SESSION_H_
