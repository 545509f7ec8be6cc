#ifndef TESTS_FAULTS_HISTORY_H_
#define TESTS_FAULTS_HISTORY_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plugin_cmd.pb.h"

namespace vexo::test {

// What a hand-shake consists of, of both parties.
enum class operation {
  init_snapshot,
  mirror_done,
  wait_for_depart,
  depart_done,
  start_mirror,
  is_mirror_done,
  depart_relation
};
const char* name_of(operation what);

enum class answer { yes, no, none };  // none: the caller gave up, or the daemon was gone

// What the configuration says of a LUN while it is asked about.
enum class lun_kind { mirrored, needs_no_mirror, unreadable };

struct moment {
  std::chrono::nanoseconds at;    // steady, from any fixed point
  std::chrono::nanoseconds wall;  // as the daemon's wall clock has it, which may be stepped
};

struct recorded_call {
  operation what;
  std::string key;
  lun_kind lun;
  std::uint32_t cmd_sn;  // tells this command from every other; 0 for the host's side
  moment begin;
  moment end;  // not looked at without an answer
  answer verdict;
  std::string answered_task_id;  // of init_snapshot
};

// One message that a host received.
struct recorded_message {
  std::string stream;  // one Subscribe call
  std::string plugin_id;
  operation what;
  std::string key;  // its task_id
  std::uint32_t cmd_sn;
  moment at;  // when it was looked at, so not before it came
};

// One Subscribe call, from the first moment at which it may be registered to the last.
struct recorded_subscription {
  moment begin;
  std::optional<moment> listed;   // from here on it surely is
  std::optional<moment> leaving;  // up to here
};

struct recorded_events {
  std::vector<recorded_call> calls;
  std::vector<recorded_message> messages;
  std::vector<recorded_subscription> subscriptions;
};

// Everything that the callers and hosts of one daemon did and saw. Any thread may call.
class history {
 public:
  moment now() const;
  // How far the daemon's wall clock has been stepped.
  void step_clock(std::chrono::nanoseconds by) { step_ = step_.load() + by.count(); }
  std::uint32_t new_cmd_sn() { return ++last_cmd_sn_; }

  void add(recorded_call call);
  void add(const std::string& stream, const std::string& plugin_id,
           const scsiplugin::PluginCmd& message);
  // The index by which the other two know it.
  std::size_t subscribing();
  void listed(std::size_t subscription);
  void leaving(std::size_t subscription);

  recorded_events events() const;
  // Calls and messages are dropped, subscriptions go on. Only between hand-shakes.
  void drop_past();
  // For another daemon.
  void clear();

 private:
  std::atomic<std::int64_t> step_ = 0;  // ns
  std::atomic<std::uint32_t> last_cmd_sn_ = 0;
  mutable std::mutex mutex_;
  recorded_events events_;
};

}  // namespace vexo::test

#endif  // TESTS_FAULTS_HISTORY_H_
