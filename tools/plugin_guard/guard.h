#ifndef TOOLS_PLUGIN_GUARD_GUARD_H_
#define TOOLS_PLUGIN_GUARD_GUARD_H_

#include <array>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/interrupt.h"
#include "guard_status.pb.h"
#include "plugin_guard/back_off.h"
#include "plugin_guard/findings.h"
#include "plugin_guard/sweeper.h"
#include "plugin_guard/watch.h"

namespace vexo::tools {

// Keeps the daemon of this machine serving: unsubscribes vanished hosts, watches both endpoints,
// and ends a daemon that has stopped serving, which its supervisor then starts again. Reports all
// of that to the system log, the status file and the service manager.
class guard {
 public:
  struct options {
    std::chrono::milliseconds interval{500};  // between two sweeps
    // Longer than a write to a stalled host blocks the daemon, about 20 s.
    std::chrono::milliseconds fail_after{25000};
    std::chrono::milliseconds patience{5000};  // how long one look may take
    bool may_kill = true;
    std::string status_file;   // empty for none
    std::string metrics_file;  // empty for none
  };

  guard(options given, interrupt& stop);

  // Returns when a signal comes. A file that cannot be written is only reported to the log.
  void run();

 private:
  using clock = std::chrono::steady_clock;

  observation look() const;
  // Updates status_ from what was found, and logs it when that is a change.
  void judge(std::vector<finding> found);
  // A failure that will have lasted for fail_after when the next look ends; the daemon is ended
  // then. Empty when there is none.
  std::optional<finding> due(const std::vector<finding>& found) const;
  void restart_daemon(const finding& reason);
  // Repeats the look that found `reason` until it has failed for fail_after, and until the load has
  // been measured for long enough. True when every look failed; the last one has just ended then.
  bool keeps_failing(const finding& reason);
  bool last_look_fails(const finding& reason);
  // Asks for a list. `meanwhile` is called now and then until it has ended.
  bool last_call_fails(const std::function<void()>& meanwhile);
  // Starts another sweeper when another process listens at the unix socket than the sweeper's.
  void follow_process();
  void start_sweeper();
  void complain(const std::string& text);
  void report();
  // To the file for metrics, if there is one and it is time.
  void write_metrics();

  const options options_;
  interrupt& stop_;
  std::optional<sweeper> sweeper_;  // never empty
  unsigned earlier_sweeps_ = 0;     // made by earlier sweepers
  watch watch_;
  const std::chrono::system_clock::time_point started_ = std::chrono::system_clock::now();
  GuardStatus status_;
  bool judged_ = false;  // status_ says what was found; before, only that the guard has started
  std::optional<clock::time_point> last_attempt_;  // the last try to end the daemon
  // Since when the daemon that was ended had failed; empty again when a daemon serves.
  std::optional<clock::time_point> failing_since_;
  back_off back_off_;
  bool pause_logged_ = false;  // the log says that the next restart has to wait
  clock::time_point next_report_ = clock::now();
  bool status_file_works_ = true;
  std::array<double, GuardStatus::State_ARRAYSIZE> seconds_in_ = {};  // each state
  clock::time_point counted_until_ = clock::now();                    // in seconds_in_
  GuardStatus in_metrics_;  // what the file for metrics was last written from
  clock::time_point next_metrics_ = clock::now();
  bool metrics_file_works_ = true;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_GUARD_H_
