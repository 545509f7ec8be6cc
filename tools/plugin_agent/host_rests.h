#ifndef TOOLS_PLUGIN_AGENT_HOST_RESTS_H_
#define TOOLS_PLUGIN_AGENT_HOST_RESTS_H_

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

#include "common/event.h"
#include "freezer.pb.h"
#include "plugin_agent/quiesce.h"

namespace vexo::tools {

// What the handshakes of this host share: the rest under way, and a short time before a rest in
// which handshakes gather whose mirrors are done at nearly the same time, so that they share it.
// Any thread may call.
class host_rests {
 public:
  using clock = std::chrono::steady_clock;

  // How long a handshake whose mirror is done waits for others to find theirs done too.
  static constexpr std::chrono::milliseconds kGatherTime{200};
  // The pause between two questions about a mirror during that time.
  static constexpr std::chrono::milliseconds kGatherPoll{20};

  // While it lives, a handshake waits for its mirror; `news` is raised when the handshake is to ask
  // at once whether the mirror is done.
  class mirror_wait {
   public:
    mirror_wait(host_rests& all, event& news);
    ~mirror_wait();
    mirror_wait(const mirror_wait&) = delete;
    mirror_wait& operator=(const mirror_wait&) = delete;

   private:
    host_rests& all_;
    event& news_;
  };

  // Calls `write`, which may touch any file system, unless this host is at rest or about to be; no
  // rest begins meanwhile. An agent that waits for a frozen file system cannot even be killed, and
  // its freezer would not learn that it has gone. Whether it was called.
  bool while_thawed(const std::function<void()>& write);

  // To be called when a mirror is done: the other handshakes ask about theirs.
  void gather();
  bool is_gathering();
  // Whether a handshake whose mirror is done need not wait for others any longer.
  bool has_gathered();

  // The rest under way, joined, if `hold` is left of it; otherwise a new one. Throws
  // std::runtime_error when there is no freezer to be had.
  std::shared_ptr<quiesce> enter(const FreezerPlan& plan, event& news,
                                 std::chrono::milliseconds hold);

 private:
  std::mutex mutex_;
  std::weak_ptr<quiesce> current_;  // under mutex_, as all below
  std::multiset<event*> waiting_;
  clock::time_point gathered_;  // when gathering ends, or has ended
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_HOST_RESTS_H_
