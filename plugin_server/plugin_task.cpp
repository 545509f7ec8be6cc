#include "plugin_task.h"

namespace vexo::scsiplugin {

void plugin_task::set_state(task_state next) {
  const mutex_lock lock(mutex);
  state = next;
  cond.notify_all();
}

bool plugin_task::wait_for(task_state target) {
  mutex_lock lock(mutex);
  const auto deadline = std::chrono::system_clock::now() + TASK_WAIT;
  return cond.wait_until(lock, deadline, [&] { return state == target; });
}

}  // namespace vexo::scsiplugin
