#include "plugin_freezer/other_freezer.h"

#include <csignal>
#include <sstream>
#include <utility>

#include "plugin_freezer/monotonic_ms.h"
#include "plugin_freezer/processes.h"

namespace vexo::tools {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string seconds_text(milliseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

bool other_freezer::wake_or_kill() {
  const pid_t pid = directory_.lock_holder();
  if (pid <= 1) return true;  // it has just ended, or is in another PID namespace
  if (std::exchange(pid_, pid) != pid) since_ = steady_clock::now();
  if (look_at(pid).is_stopped()) kill(pid, SIGCONT);
  const auto record = directory_.record();
  const bool is_known = record && is_of_this_boot(record->boot_id(), record->plan().run_dir());
  if (is_known && record->phase() == RestRecord::WATCHING) {
    warn_once(
        pid,
        "waits for processes of an earlier rest that may still freeze something; no other rest "
        "of this host begins before");
    return false;
  }
  if (!is_known && !is_emergency_) return true;
  const bool is_thawing = is_known && record->phase() == RestRecord::THAWING;
  const bool is_to_react = is_emergency_ && !is_thawing;
  const auto until = is_to_react ? since_ : from_ms(record->until());
  const auto left = std::chrono::ceil<milliseconds>(until + kReactionTime - steady_clock::now());
  if (left.count() > 0) {
    if (!is_emergency_) {
      warn_once(pid, "has this host at rest; waiting for at most " + seconds_text(left));
    }
  } else if (std::exchange(killed_, pid) != pid) {
    loop_.agent.warn("freezer " + std::to_string(pid) + " hangs; it is killed");
    kill(pid, SIGKILL);
  }
  return true;
}

void other_freezer::warn_once(pid_t pid, const std::string& what) {
  if (std::exchange(warned_of_, pid) == pid) return;
  loop_.agent.warn("freezer " + std::to_string(pid) + " " + what);
}

}  // namespace vexo::tools
