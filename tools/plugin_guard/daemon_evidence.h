#ifndef TOOLS_PLUGIN_GUARD_DAEMON_EVIDENCE_H_
#define TOOLS_PLUGIN_GUARD_DAEMON_EVIDENCE_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace vexo::tools {

// "1003 of 1024 files open" of a running process, "? files open" when this user may not see that.
std::string open_files(pid_t pid);

// What can be seen of a process that does not serve.
class daemon_evidence {
 public:
  // A load that was measured for less time says little.
  static constexpr std::chrono::milliseconds kLoadTime{500};

  // Measures the load from now on.
  explicit daemon_evidence(pid_t pid);

  // "12 threads, 40 of 1024 files open, 98 % of one processor in use", with "?" or "unknown" for
  // what cannot be seen. Call it before the process has ended.
  std::string text() const;

 private:
  const pid_t pid_;
  const std::optional<double> cpu_seconds_;  // used until start_
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_DAEMON_EVIDENCE_H_
