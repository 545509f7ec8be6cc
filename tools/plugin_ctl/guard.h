#ifndef TOOLS_PLUGIN_CTL_GUARD_H_
#define TOOLS_PLUGIN_CTL_GUARD_H_

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "common/interrupt.h"
#include "guard_back_off.h"
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
  std::string status_file;  // empty for none
};

// Keeps the daemon of this machine serving: has vanished hosts swept, watches both endpoints, ends
// a daemon that has stopped serving, which its supervisor then starts anew, and tells all of that
// to the system log, the status file and the service manager.
class guard {
 public:
  guard(guard_options options, interrupt& stop);

  // Until a signal comes. A status file that cannot be written is complained of, and no more.
  void run();

 private:
  using clock = std::chrono::steady_clock;

  sighting look() const;
  void judge(std::vector<finding> found);
  // What has gone on for so long that the daemon is to be ended after one more look, with which it
  // will have lasted for fail_after; empty when nothing has.
  std::optional<finding> due(const std::vector<finding>& found) const;
  void restart_daemon(const finding& reason);
  // Looks at just that, again and again until it has lasted for fail_after and `evidence` is there.
  // True when every look has failed, the last one a moment ago.
  bool lasts(const finding& reason, const std::future<std::vector<std::string>>& evidence);
  bool last_look_fails(const finding& reason);
  // Asks for a list. `meanwhile` is called now and then.
  bool last_call_fails(const std::function<void()>& meanwhile);
  // Turns the sweeper to the process at the unix socket.
  void follow_process();
  void start_sweeper();
  void complain(const std::string& text);
  void report();

  const guard_options options_;
  interrupt& stop_;
  std::optional<guard_sweeper> sweeper_;  // never empty
  unsigned earlier_sweeps_ = 0;           // of the sweepers before
  guard_watch watch_;
  GuardStatus status_;
  bool judged_ = false;                             // status_ holds a judgement
  std::optional<clock::time_point> last_attempt_;   // to end the daemon
  std::optional<clock::time_point> failing_since_;  // of a daemon that was ended, until one serves
  guard_back_off back_off_;
  bool told_of_pause_ = false;  // since the last restart
  clock::time_point next_report_ = clock::now();
  bool status_file_works_ = true;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_H_
