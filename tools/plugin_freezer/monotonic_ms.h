#ifndef TOOLS_PLUGIN_FREEZER_MONOTONIC_MS_H_
#define TOOLS_PLUGIN_FREEZER_MONOTONIC_MS_H_

#include <chrono>
#include <cstdint>

namespace vexo::tools {

// Points in time as the freezer's messages and its record have them: milliseconds of
// CLOCK_MONOTONIC.
inline std::int64_t to_ms(std::chrono::steady_clock::time_point time) {
  return std::chrono::ceil<std::chrono::milliseconds>(time.time_since_epoch()).count();
}
inline std::chrono::steady_clock::time_point from_ms(std::int64_t time) {
  return std::chrono::steady_clock::time_point(std::chrono::milliseconds(time));
}

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_MONOTONIC_MS_H_
