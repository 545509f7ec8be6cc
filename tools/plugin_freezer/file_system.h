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

// A mounted file system, held open, so that it cannot be unmounted and no other one can take its
// place unnoticed.
struct file_system {
  mount_entry mount;
  unique_fd root;
};

// Opens the file systems mounted at exactly these paths, each file system once. Those mounted last
// come first, which is the order to freeze in: a file system in an image on another one writes to
// that one while it is being frozen. A path at which nothing is mounted is refused; otherwise the
// file system below an unmounted volume would be frozen. Throws std::runtime_error with a sentence
// for the user. `remarks`, when given, receives sentences about what is frozen in addition to the
// paths named.
std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points,
                                           std::vector<std::string>* remarks = nullptr);

// Whether file systems of this type are known to have no freeze. For other types the first freeze
// tells: to try FIFREEZE is to freeze, and to try FITHAW would end somebody else's freeze.
bool cannot_be_frozen(const std::string& type);

// The block device that a mounted file system lies on; of several devices (btrfs), the one that it
// names as its source. 0 when it lies on none, or that cannot be seen.
dev_t block_device_of(const mount_entry& mount);

// Whether one of these lies in an image on another, or may do so: then they have to be frozen one
// after the other.
bool are_stacked(const std::vector<mount_entry>& mounts);

// The superblock that `path` lies on. Throws std::runtime_error.
dev_t superblock_of(const std::string& path);

// FIFREEZE. Blocks until all dirty data is written and every write under way has ended; no signal
// interrupts it. 0, or an errno: EBUSY when somebody else has frozen it.
int freeze_file_system(int root) noexcept;

// FITHAW. 0, or an errno: EINVAL when it is not frozen.
int thaw_file_system(int root) noexcept;

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_FILE_SYSTEM_H_
