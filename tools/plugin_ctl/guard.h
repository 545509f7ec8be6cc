#ifndef TOOLS_PLUGIN_CTL_GUARD_H_
#define TOOLS_PLUGIN_CTL_GUARD_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/interrupt.h"
#include "daemon_process.h"
#include "guard_findings.h"
#include "guard_sweeper.h"
#include "guard_watch.h"
#include "report.pb.h"

namespace vexo::tools {

struct guard_options {
  std::chrono::milliseconds interval{500};
  // Longer than a write to a stalled host blocks the daemon, about 20 s.
  std::chrono::milliseconds fail_after{25000};
  std::chrono::milliseconds patience{5000};  // with one look
  bool may_kill = true;
  std::string pid_file;     // empty: the process is asked for at the unix socket
  std::string status_file;  // empty for none
};

// Keeps the daemon of this machine serving: has vanished hosts swept, watches both endpoints, ends
// a daemon that has stopped serving, which its supervisor then starts anew, and tells all of that
// to the system log, the status file and the service manager.
class guard {
 public:
  guard(guard_options options, interrupt& stop);

  // Until a signal comes.
  void run();

 private:
  using clock = std::chrono::steady_clock;

  sighting look() const;
  void judge(std::vector<finding> found);
  // What has gone on for so long that the daemon is to be ended; empty when nothing has.
  std::optional<finding> due(const std::vector<finding>& found) const;
  void restart_daemon(const finding& reason);
  const daemon_process& process();
  void complain(const std::string& text);
  void report();

  const guard_options options_;
  interrupt& stop_;
  guard_sweeper sweeper_;
  guard_watch watch_;
  GuardStatus status_;
  bool judged_ = false;                             // status_ holds a judgement
  std::optional<clock::time_point> last_attempt_;   // to end the daemon
  std::optional<clock::time_point> failing_since_;  // of a daemon that was ended, until one serves
  std::optional<daemon_process> from_pid_file_;
  clock::time_point next_report_ = clock::now();
  bool status_file_works_ = true;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_H_
