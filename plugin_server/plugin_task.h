#ifndef PLUGIN_SERVER_PLUGIN_TASK_H_
#define PLUGIN_SERVER_PLUGIN_TASK_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <string>

#include "mutex.h"

namespace vexo::scsiplugin {

enum task_state : std::uint32_t {
  TASK_CREATED = 0,
  TASK_MIRROR_STARTED = 2,  // there is no state 1
  TASK_MIRROR_DONE = 3,
  TASK_DEPART_STARTED = 4,
};

// How long a handler waits for a host plugin to move its task on.
inline constexpr std::chrono::seconds TASK_WAIT{60};
// The age from which a new task with the same id may replace a task.
inline constexpr std::chrono::seconds TASK_EXPIRY{300};

// One handshake, from its announcement to every host until the relation has departed.
// Shared by the table and by every handler working on it. A waiter keeps its own pointer, so a task
// that is deleted meanwhile stays valid; its state then never changes again.
class plugin_task {
 public:
  // Changes from any state to `next` and wakes every waiter. Takes `mutex`.
  void set_state(task_state next) PLUGIN_EXCLUDES(mutex);

  // Blocks until the state is `target`, at most TASK_WAIT on the wall clock. True when the state is
  // `target` at the end of the wait. False also when it was reached and left again before this
  // thread looked. Takes `mutex`.
  bool wait_for(task_state target) PLUGIN_EXCLUDES(mutex);

  std::atomic<std::uint32_t> state = TASK_CREATED;  // written under `mutex`; some read without it
  std::string task_id;    // its key in the table; set before the task is shared
  std::string plugin_id;  // the subscriber that depart_done goes to; never set
  std::condition_variable cond;
  scsiplugin::mutex mutex;
  std::chrono::system_clock::time_point create_time;  // read and set under `task_mutex`
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PLUGIN_TASK_H_
