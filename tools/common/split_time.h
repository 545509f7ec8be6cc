#ifndef TOOLS_COMMON_SPLIT_TIME_H_
#define TOOLS_COMMON_SPLIT_TIME_H_

#include <chrono>

namespace vexo::tools {

// What a host's --hold must be longer than: the appliance's split, unless --max-split says
// otherwise, its question afterwards whether the host was at rest until then, and the second before
// the limit in which the host takes its departure back.
inline constexpr std::chrono::seconds kMaxSplit{15};
inline constexpr std::chrono::seconds kConfirmTime{2};
inline constexpr std::chrono::seconds kLeastHold =
    kMaxSplit + kConfirmTime + std::chrono::seconds(1);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_SPLIT_TIME_H_
