#include "plugin_agent/host_facts.h"

#include <stdexcept>

#include "common/text.h"
#include "plugin_agent/hooks.h"
#include "plugin_freezer/file_system.h"

namespace vexo::tools {

std::vector<HookFacts> hook_facts(const agent_options& options, std::string& problem) {
  std::vector<HookFacts> facts;
  if (options.hooks_dir.empty()) return facts;
  const auto add = [&](const std::string& name, const std::string& refused) {
    auto& one = facts.emplace_back();
    one.set_name(printable(name));
    one.set_refused(printable(refused));
  };
  try {
    const auto listing = list_hooks(options.hooks_dir);
    for (const auto& [name, path] : listing.usable) add(name, "");
    for (const auto& [name, reason] : listing.refused) add(name, reason);
  } catch (const std::runtime_error& error) {
    problem = printable(error.what());
  }
  return facts;
}

std::vector<FileSystemFacts> file_system_facts(const agent_options& options) {
  std::vector<FileSystemFacts> facts;
  for (const auto& mount_point : options.mount_points) {
    auto& one = facts.emplace_back();
    one.set_mount_point(printable(mount_point));
    try {
      const auto mount = open_file_systems({mount_point}).front().mount;
      one.set_type(printable(mount.type));
      one.set_source(printable(mount.source));
      check_mount_point(mount_point, options);
      one.set_can_be_frozen(true);
    } catch (const std::exception& error) {
      one.set_reason(printable(error.what()));
    }
  }
  return facts;
}

}  // namespace vexo::tools
