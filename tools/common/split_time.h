#ifndef TOOLS_COMMON_SPLIT_TIME_H_
#define TOOLS_COMMON_SPLIT_TIME_H_

#include <chrono>

namespace vexo::tools {

// What the appliance needs of a host's --hold: for its split, unless --max-split says otherwise,
// and to ask afterwards whether the host was at rest until then.
inline constexpr std::chrono::seconds kMaxSplit{15};
inline constexpr std::chrono::seconds kConfirmTime{2};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_SPLIT_TIME_H_
