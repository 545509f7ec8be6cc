#ifndef TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_
#define TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_

#include <string>

#include "freezer.pb.h"

namespace vexo::tools {

// FITHAW for a file system that this process does not hold open: through any mount of it that this
// or another process sees; else through a new mount, at a directory in `run_dir` in a mount
// namespace of its own. 0, or an errno: EINVAL when it is not frozen, ENODEV when it may be frozen
// and cannot be reached. Blocks, and may change this process's mount namespace: for a child only.
int thaw_by_device(const RestRecord::FileSystem& wanted, const std::string& run_dir);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_
