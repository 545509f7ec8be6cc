#include "plugin_agent/recovery.h"

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>

#include "plugin_agent/agent_log.h"
#include "plugin_agent/file_system.h"
#include "plugin_agent/freeze_turn.h"
#include "plugin_agent/hooks.h"

namespace vexo::tools {

namespace {

// False when it is still frozen.
bool thaw(const freeze_record::frozen& left) {
  try {
    const auto opened = open_file_systems({left.mount_point});
    if (opened.front().device != left.device) {
      agent_log().warn("{} is another file system now; not thawed", printable(left.mount_point));
      return true;
    }
    const int error = thaw_file_system(opened.front().root.get());
    if (error == 0) {
      agent_log().warn("{} was left frozen by an earlier agent; thawed",
                       printable(left.mount_point));
    } else if (error != EINVAL) {
      agent_log().error("{0} cannot be thawed: {1}; try \"fsfreeze --unfreeze {0}\"",
                        printable(left.mount_point),
                        printable(std::generic_category().message(error)));
      return false;
    }
  } catch (const std::runtime_error& error) {
    agent_log().warn("left behind by an earlier agent, and gone: {}", printable(error.what()));
  }
  return true;
}

void run_thaw_hook(hook_runner& runner, const std::string& path,
                   std::chrono::milliseconds timeout) {
  const std::filesystem::path file(path);
  const std::string name = file.filename();
  try {
    for (const auto& usable : list_hooks(file.parent_path()).usable) {
      if (usable.name != name) continue;
      const hook_run run = runner.run(usable, "thaw", timeout, nullptr);
      agent_log().warn("ran hook {} thaw after an earlier agent: exit code {}", printable(name),
                       run.exit_code);
      return;
    }
    agent_log().warn("hook {} of an earlier agent is not there to thaw", printable(path));
  } catch (const std::runtime_error& error) {
    agent_log().error("hook {} of an earlier agent: {}", printable(path), printable(error.what()));
  }
}

}  // namespace

void thaw_left_behind(const std::string& run_dir, std::chrono::milliseconds hook_timeout) {
  const auto record = read_freeze_record(run_dir);
  if (!record) return;
  const log_hold hold;  // the log may lead to what is still frozen
  bool all_thawed = true;
  for (std::size_t i = record->file_systems.size(); i-- > 0;) {
    all_thawed = thaw(record->file_systems[i]) && all_thawed;
  }
  hook_runner runner({});
  for (std::size_t i = record->hooks.size(); i-- > 0;) {
    run_thaw_hook(runner, record->hooks[i], hook_timeout);
  }
  if (all_thawed) remove_freeze_record(run_dir);
}

}  // namespace vexo::tools
