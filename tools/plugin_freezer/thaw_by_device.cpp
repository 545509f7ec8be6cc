#include "plugin_freezer/thaw_by_device.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <set>

#include "common/unique_fd.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/processes.h"

namespace vexo::tools {

namespace {

// Through the mounts that a process sees. Empty when none leads to the file system; another mount
// may lie on top of one that does.
std::optional<int> thaw_as_seen_by(const std::string& process, dev_t device) {
  std::optional<int> result;
  for (const auto& entry : mount_table(process + "/mountinfo")) {
    if (entry.device != device) continue;
    const unique_fd file(open((process + "/root" + entry.mount_point).c_str(),
                              O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || mount_id_of(file.get()) != entry.id) continue;
    result = thaw_file_system(file.get());
    if (*result == 0 || *result == EINVAL) break;
  }
  return result;
}

// A frozen superblock outlives its last mount, and a new mount of the device leads to it. The
// device is mounted only while something holds it: otherwise its superblock is gone, nothing is
// frozen, and a mount would write to the device.
int thaw_unmounted(const RestRecord::FileSystem& wanted, const std::string& run_dir) {
  struct stat facts = {};
  if (stat(wanted.source().c_str(), &facts) != 0 || !S_ISBLK(facts.st_mode)) return ENODEV;
  if (unique_fd(open(wanted.source().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC))) return EINVAL;
  if (errno != EBUSY) return ENODEV;
  const std::string directory = run_dir + "/thaw";
  mkdir(directory.c_str(), 0700);
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return ENODEV;
  }
  for (const unsigned long flags : {0UL, static_cast<unsigned long>(MS_RDONLY)}) {
    if (mount(wanted.source().c_str(), directory.c_str(), wanted.type().c_str(), flags, nullptr) ==
        0) {
      return thaw_as_seen_by("/proc/self", wanted.device()).value_or(ENODEV);
    }
  }
  return ENODEV;
}

}  // namespace

int thaw_by_device(const RestRecord::FileSystem& wanted, const std::string& run_dir) {
  if (const auto result = thaw_as_seen_by("/proc/self", wanted.device())) return *result;
  std::set<ino_t> namespaces;
  const auto is_new = [&](const std::string& process) {
    struct stat facts = {};
    return stat((process + "/ns/mnt").c_str(), &facts) == 0 &&
           namespaces.insert(facts.st_ino).second;
  };
  is_new("/proc/self");
  for (const auto& one : running_processes()) {
    const std::string process = "/proc/" + std::to_string(one.pid);
    if (!is_new(process)) continue;
    if (const auto result = thaw_as_seen_by(process, wanted.device())) return *result;
  }
  return thaw_unmounted(wanted, run_dir);
}

}  // namespace vexo::tools
