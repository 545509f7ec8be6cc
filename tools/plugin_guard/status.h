#ifndef TOOLS_PLUGIN_GUARD_STATUS_H_
#define TOOLS_PLUGIN_GUARD_STATUS_H_

#include <chrono>
#include <string>

#include "guard_status.pb.h"

namespace vexo::tools {

// Where a guard writes its status by default. The guard's unit makes the directory.
inline constexpr char kStatusFile[] = "/run/scsi-plugin-guard/status.json";
// A guard writes every kStatusEvery, but pauses while it ends the daemon: a SIGABRT and a SIGKILL
// may take 5 s each. A status that is older than kStatusHolds was left by a guard that has died.
inline constexpr std::chrono::seconds kStatusEvery{1};
inline constexpr std::chrono::seconds kStatusHolds{20};

// "2026-11-21T07:43:19Z"
std::string time_text(std::chrono::system_clock::time_point when);

// As replace_file().
void write_status(const std::string& path, const GuardStatus& status);

// What a guard wrote there. When there is no valid status, the state is UNKNOWN, and `error` says
// why.
struct found_status {
  GuardStatus status;
  bool is_valid = true;
};
found_status read_status(const std::string& path);

// The status in the form of a Nagios-type monitor's plugin: one line, and the exit code.
struct check_result {
  std::string line;
  int exit_code;
};
check_result check(const found_status& found);
// The exit code when the check itself cannot be made.
inline constexpr int kCheckUnknown = 3;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_STATUS_H_
