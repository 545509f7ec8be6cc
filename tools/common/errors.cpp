#include "common/errors.h"

#include <absl/status/status.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace vexo::tools {

namespace {

// "DEADLINE_EXCEEDED": gRPC's codes are those of absl.
std::string status_name(grpc::StatusCode code) {
  std::string name = absl::StatusCodeToString(static_cast<absl::StatusCode>(code));
  return name.empty() ? "an unknown status" : name;
}

// The group whose members may open the socket at `path`: that of the socket, or of its directory if
// that is closed to this user.
std::string group_of(const std::filesystem::path& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0 && stat(path.parent_path().c_str(), &facts) != 0) return "?";
  const group* const found = getgrgid(facts.st_gid);  // NOLINT(concurrency-mt-unsafe)
  return found != nullptr ? found->gr_name : std::to_string(facts.st_gid);
}

std::string next_step_without_socket(const std::string& path) {
  if (access(path.c_str(), W_OK) != 0 && errno == EACCES) {
    const std::string group = group_of(path);
    if (group == "root") return "only root may open that socket: call it again as root";
    return "only root and the members of the group " + group +
           " may open that socket: `usermod --append --groups " + group +
           " USER`, and USER logs in again";
  }
  return "see that scsi_plugin_server runs on this machine, or name another endpoint with --target";
}

std::string next_step(const endpoint& where, grpc::StatusCode code) {
  switch (code) {
    case grpc::StatusCode::UNAVAILABLE:
      if (where.kind == endpoint::family::unix_socket) {
        return next_step_without_socket(where.target.substr(where.target.find(':') + 1));
      }
      return "see that scsi_plugin_server runs there and that no firewall closes port " +
             std::to_string(where.port) + ", or name another endpoint with --target";
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return "allow it 20 s longer with --timeout: the daemon waits so long at most for a host "
             "that has stalled. If `plugin_ctl probe` finds no answer then either, the daemon "
             "hangs, and plugin_guard restarts it (`plugin_guard --status`)";
    case grpc::StatusCode::CANCELLED:
      return "the daemon does not know this command: compare its version with this program's";
    case grpc::StatusCode::UNIMPLEMENTED:
      return "something else listens there: check --target";
    default:
      return "read the daemon's lines in the system log, which begin with \"scsi_plugin:\"";
  }
}

}  // namespace

int end_with(const shown_text& program, const tool_error& error) {
  if (error.code != exit_code::closed_pipe) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), error.text.c_str());
  }
  return static_cast<int>(error.code);
}

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
