#include "common/errors.h"

#include <absl/status/status.h>

namespace vexo::tools {

namespace {

// "DEADLINE_EXCEEDED": gRPC's codes are those of absl.
std::string status_name(grpc::StatusCode code) {
  std::string name = absl::StatusCodeToString(static_cast<absl::StatusCode>(code));
  return name.empty() ? "an unknown status" : name;
}

std::string next_step(const endpoint& where, grpc::StatusCode code) {
  switch (code) {
    case grpc::StatusCode::UNAVAILABLE:
      if (where.kind == endpoint::family::unix_socket) {
        return "see that scsi_plugin_server runs on this machine and that you may open its socket, "
               "or name another endpoint with --target";
      }
      return "see that scsi_plugin_server runs there and that no firewall closes port " +
             std::to_string(where.port) + ", or name another endpoint with --target";
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return "allow it longer with --timeout; if `plugin_ctl probe` finds no answer either, the "
             "daemon hangs and has to be restarted";
    case grpc::StatusCode::CANCELLED:
      return "the daemon does not know this command: compare its version with this program's";
    case grpc::StatusCode::UNIMPLEMENTED:
      return "something else listens there: check --target";
    default:
      return "read the daemon's lines in the system log, which begin with \"scsi_plugin:\"";
  }
}

}  // namespace

shown_text problem::text() const {
  return printable(tried) + "\n  came back: " + printable(came_back) +
         "\n  next:      " + printable(next);
}

exit_code exit_code_of(const grpc::Status& status) {
  switch (status.error_code()) {
    case grpc::StatusCode::OK:
      return exit_code::done;
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return exit_code::unreachable;
    default:
      return exit_code::failed;
  }
}

std::string status_text(const grpc::Status& status) {
  std::string text = status_name(status.error_code());
  if (!status.error_message().empty()) text += ": " + status.error_message();
  return text;
}

problem call_problem(const std::string& what, const endpoint& where, const grpc::Status& status) {
  return {exit_code_of(status), what + " at " + where.text, status_text(status),
          next_step(where, status.error_code())};
}

}  // namespace vexo::tools
