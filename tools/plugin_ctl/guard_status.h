#ifndef TOOLS_PLUGIN_CTL_GUARD_STATUS_H_
#define TOOLS_PLUGIN_CTL_GUARD_STATUS_H_

#include <chrono>
#include <string>

#include "report.pb.h"

namespace vexo::tools {

// Where a guard writes its status unless it is told otherwise; the directory is made by whoever
// installs it.
inline constexpr char kStatusFile[] = "/run/scsi-plugin-guard/status.json";
// A guard writes at least every kStatusEvery, except while it restarts the daemon: not for longer
// than a debugger, or a SIGABRT and a SIGKILL, may take. What is older was left by a guard
// that has died.
inline constexpr std::chrono::seconds kStatusEvery{1};
inline constexpr std::chrono::seconds kStatusHolds{20};

// "2026-11-21T07:43:19Z"
std::string time_text(std::chrono::system_clock::time_point when);

// Replaces the file as a whole, so that no reader sees half of it. Throws std::system_error.
void write_status(const std::string& path, const GuardStatus& status);

// What a guard wrote there; when there is none to be believed, DOWN, and `error` says why.
GuardStatus read_status(const std::string& path);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_STATUS_H_
