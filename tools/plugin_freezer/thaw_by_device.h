#ifndef TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_
#define TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_

#include <string>

#include "freezer.pb.h"

namespace vexo::tools {

// FITHAW for a file system that this process does not hold open: through any mount of it, ours or
// another process's; else through a mount of its own, for which it uses a directory in `run_dir`
// and goes to a mount namespace of its own. 0, or an errno: EINVAL when it is not frozen, ENODEV
// when it may be and cannot be reached. Blocks, and changes the process: for a child.
int thaw_by_device(const RestRecord::FileSystem& wanted, const std::string& run_dir);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_THAW_BY_DEVICE_H_
