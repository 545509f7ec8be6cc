#ifndef TESTS_SUPPORT_PLUGIN_AGENT_H_
#define TESTS_SUPPORT_PLUGIN_AGENT_H_

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "calls.h"
#include "daemon.h"
#include "handshake_record.pb.h"
#include "program.h"
#include "sandbox.h"
#include "subscriber.h"
#include "volume.h"

namespace vexo::test {

// Another of the sample inventory.
inline constexpr char kOtherLun[] = "9b1deb4d-3b7d-4bad-9bdd-2b0d7b3dcb6d";

// Hooks that say what they are told, and can be made to fail or to block. Every one of them
// "freezes" by leaving a file behind.
class hook_directory {
 public:
  hook_directory();
  ~hook_directory();
  hook_directory(const hook_directory&) = delete;
  hook_directory& operator=(const hook_directory&) = delete;

  const std::string& path() const { return path_; }
  void add(const std::string& name, mode_t mode = 0755);
  // From now on the hook exits with 3 in this phase.
  void fail(const std::string& name, const std::string& phase);
  // From now on the hook blocks in this phase until unblock().
  void block(const std::string& name, const std::string& phase);
  void unblock();
  // Waits until a blocked hook has been reached.
  bool wait_until_blocked() const;
  // What was run so far, "10-app freeze", in order; and from then on nothing.
  std::vector<std::string> take_runs();
  bool is_frozen(const std::string& name) const;
  bool wait_until_thawed(const std::string& name) const;

 private:
  std::string state(const std::string& what) const { return path_ + "/.state/" + what; }

  std::string path_;
};

// The agent beside a real daemon, started with start_daemon() and start_agent().
class PluginAgent : public sandboxed {
 protected:
  void SetUp() override;
  void TearDown() override;

  void start_daemon();
  // Options are added to a short poll and one LUN; waits until it is subscribed if `serves`.
  std::unique_ptr<program> start_agent(std::vector<std::string> options, bool serves = true);
  // SIGTERM, and the end that must follow.
  static void leave(program& agent);

  // The local caller's side.
  bool announce(const std::string& lun) { return call->publish(init_snapshot(lun)); }
  // From the announcement until the host is frozen and waited for.
  void go_to_split(const std::string& lun);
  void whole_handshake(const std::string& lun);

  // The agent's verdict on the `index`th hand-shake, waiting for it.
  static tools::HandshakeRecord record(program& agent, std::size_t index = 0);

  std::unique_ptr<dev_log> log;
  std::unique_ptr<daemon_process> daemon;
  std::unique_ptr<caller> call;
};

// The process id of the agent's guardian; -1 when there is none.
pid_t guardian_of(pid_t agent);

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_PLUGIN_AGENT_H_
