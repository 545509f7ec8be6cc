#ifndef TOOLS_PLUGIN_AGENT_PREPARED_HOOKS_H_
#define TOOLS_PLUGIN_AGENT_PREPARED_HOOKS_H_

#include <vector>

#include "freezer.pb.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_agent/handshake_news.h"
#include "plugin_agent/quiesce.h"

namespace vexo::tools {

// The hooks of one handshake from their `prepare` until a rest of the host includes them. A freezer
// runs `prepare` and waits: it runs `thaw` when it is told to, and when the agent has ended.
class prepared_hooks {
 public:
  // Starts that freezer. All arguments are borrowed; each run of a hook is added to `runs`. Throws
  // std::runtime_error.
  prepared_hooks(const FreezerPlan& plan, handshake_news& news, std::vector<hook_run>& runs);

  // Blocks until all `prepare` have succeeded. Throws given_up when one fails or the handshake is
  // to end.
  void wait();

  // From now on a rest runs their `thaw`. The freezer ends.
  void release();

  // Has `thaw` run, and blocks until it has. False when that takes too long; it is run later then.
  bool undo();

 private:
  enum class outcome { thawed, died, late };
  outcome wait_for_thaw(const freezer_process& freezer);

  const FreezerPlan& plan_;
  handshake_news& news_;
  std::vector<hook_run>& runs_;
  const freezer_process freezer_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_PREPARED_HOOKS_H_
