#ifndef TOOLS_PLUGIN_AGENT_UTC_TEXT_H_
#define TOOLS_PLUGIN_AGENT_UTC_TEXT_H_

#include <spdlog/fmt/chrono.h>

#include <chrono>
#include <string>

namespace vexo::tools {

// As in "2026-11-21T07:43:19Z".
inline std::string utc_text(std::chrono::system_clock::time_point when) {
  return fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(when)));
}

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_UTC_TEXT_H_
