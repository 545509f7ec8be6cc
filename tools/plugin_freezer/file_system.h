#ifndef TOOLS_PLUGIN_FREEZER_FILE_SYSTEM_H_
#define TOOLS_PLUGIN_FREEZER_FILE_SYSTEM_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vexo::tools {

// A line of a mountinfo file.
struct mount_entry {
  int id = 0;
  dev_t device = 0;         // of the superblock, which is what the kernel freezes: subvolumes and
                            // bind mounts of one file system have the same
  std::string root;         // what of the file system is mounted: "/", or less
  std::string mount_point;  // as seen by the process whose file it is
  std::string type;
  std::string source;
};

// In the order of mounting; empty when the file cannot be read.
std::vector<mount_entry> mount_table(const std::string& file = "/proc/self/mountinfo");

// The id of the mount that an open file was reached through; -1 when it cannot be read.
int mount_id_of(int fd);

// A mounted file system, held open: it can neither be unmounted nor mistaken for another one that
// takes its place.
struct file_system {
  mount_entry mount;
  unique_fd root;
};

// Opens the file systems mounted at exactly these paths, each file system once, those mounted last
// first: the order to freeze in, since one that lies in an image on another has to write to it
// while it comes to rest. A path that nothing is mounted at is refused, or an unmounted volume
// would freeze the file system below it. Throws std::runtime_error with a sentence for the user.
// To `remarks`, when given, go sentences about what is frozen beside what was named.
std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points,
                                           std::vector<std::string>* remarks = nullptr);

// Whether a file system of this type is known to have no freeze. The rest shows with the first
// freeze: FIFREEZE cannot be tried without being done, and FITHAW would end somebody else's.
bool cannot_be_frozen(const std::string& type);

// Whether one of these lies in an image on another, as far as can be seen: then they have to be
// frozen one after the other.
bool are_stacked(const std::vector<mount_entry>& mounts);

// The superblock that `path` lies on. Throws std::runtime_error.
dev_t superblock_of(const std::string& path);

// FIFREEZE: blocks, not to be interrupted, until what is dirty is written and every write under way
// has ended. 0, or an errno: EBUSY when somebody else has frozen it.
int freeze_file_system(int root) noexcept;

// FITHAW. 0, or an errno: EINVAL when it is not frozen.
int thaw_file_system(int root) noexcept;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_FILE_SYSTEM_H_
