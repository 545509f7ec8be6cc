#ifndef TOOLS_PLUGIN_AGENT_FILE_SYSTEM_H_
#define TOOLS_PLUGIN_AGENT_FILE_SYSTEM_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vexo::tools {

// A mounted file system, held open by its root: it can neither be unmounted nor mistaken for
// another one that takes its place.
struct file_system {
  std::string mount_point;
  dev_t device = 0;
  unique_fd root;
};

// Opens the file systems mounted at exactly these paths, each file system once, those mounted last
// first: the order to freeze in, since one that lies in an image on another has to write to it
// while it comes to rest. A path that nothing is mounted at is refused, or an unmounted volume
// would freeze the file system below it. Throws std::runtime_error with a sentence for the user.
std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points);

// The type of the file system mounted at `path`, if it is known to have no freeze; otherwise empty.
// The rest shows with the first freeze: FIFREEZE cannot be tried without being done, and FITHAW
// would end somebody else's. Throws std::runtime_error.
std::string type_that_cannot_be_frozen(const std::string& path);

// The device of the file system that `path` lies on. Throws std::system_error.
dev_t device_of(const std::string& path);

// FIFREEZE: blocks, not to be interrupted, until what is dirty is written and every write under way
// has ended. 0, or an errno: EBUSY when somebody else has frozen it.
int freeze_file_system(int root) noexcept;

// FITHAW. 0, or an errno: EINVAL when it is not frozen.
int thaw_file_system(int root) noexcept;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_FILE_SYSTEM_H_
