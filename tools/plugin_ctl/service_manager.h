#ifndef TOOLS_PLUGIN_CTL_SERVICE_MANAGER_H_
#define TOOLS_PLUGIN_CTL_SERVICE_MANAGER_H_

#include <string>

namespace vexo::tools {

// Tells the service manager, in its own words: "READY=1", "WATCHDOG=1", "STATUS=...". Nothing when
// no NOTIFY_SOCKET says that it listens. Never blocks or fails.
void notify_service_manager(const std::string& text) noexcept;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_SERVICE_MANAGER_H_
