#include "plugin_agent/file_system.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

std::string errno_text() { return std::generic_category().message(errno); }

struct mounted {
  int place = 0;  // in the order of mounting
  std::string type;
};

// By mount point; the topmost counts where several are stacked.
std::map<std::string, mounted> mount_table() {
  const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent("/proc/self/mounts", "re"),
                                                    endmntent);
  if (!table) throw std::runtime_error("/proc/self/mounts cannot be read: " + errno_text());
  std::map<std::string, mounted> found;
  mntent entry = {};
  char buffer[16384];
  for (int place = 0; getmntent_r(table.get(), &entry, buffer, sizeof buffer) != nullptr; ++place) {
    found[entry.mnt_dir] = {place, entry.mnt_type};
  }
  return found;
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
  if (!real) throw std::runtime_error(path + " cannot be frozen: " + errno_text());
  return real.get();
}

}  // namespace

std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points) {
  if (mount_points.empty()) return {};
  const auto table = mount_table();
  std::map<int, file_system, std::greater<>> by_place;
  for (const auto& given : mount_points) {
    const std::string path = resolved(given);
    const auto mount = table.find(path);
    if (mount == table.end()) {
      throw std::runtime_error(given + " cannot be frozen: nothing is mounted there");
    }
    file_system opened;
    opened.mount_point = path;
    opened.root = unique_fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat facts = {};
    if (!opened.root || fstat(opened.root.get(), &facts) != 0) {
      throw std::runtime_error(given + " cannot be frozen: " + errno_text());
    }
    opened.device = facts.st_dev;
    const bool known = std::any_of(by_place.begin(), by_place.end(), [&](const auto& other) {
      return other.second.device == opened.device;
    });
    if (!known) by_place.emplace(mount->second.place, std::move(opened));
  }
  std::vector<file_system> opened;
  opened.reserve(by_place.size());
  for (auto& [place, one] : by_place) opened.push_back(std::move(one));
  return opened;
}

std::string type_that_cannot_be_frozen(const std::string& path) {
  // Without a freeze in the kernel: those in memory, on the network or of other programs, the
  // kernel's own views of itself, and the simplest of those on disks.
  static const std::set<std::string> without = {
      "9p",    "autofs", "ceph",    "cgroup",  "cgroup2",  "cifs",  "devpts", "devtmpfs",
      "exfat", "fuse",   "fuseblk", "iso9660", "msdos",    "nfs",   "nfs4",   "overlay",
      "proc",  "ramfs",  "smb3",    "sysfs",   "squashfs", "tmpfs", "vfat",   "virtiofs"};
  const std::string type = mount_table()[resolved(path)].type;
  return without.contains(type) || type.starts_with("fuse.") ? type : "";
}

dev_t device_of(const std::string& path) {
  struct stat facts = {};
  if (stat(path.c_str(), &facts) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return facts.st_dev;
}

int freeze_file_system(int root) noexcept { return ioctl(root, FIFREEZE, 0) == 0 ? 0 : errno; }

int thaw_file_system(int root) noexcept { return ioctl(root, FITHAW, 0) == 0 ? 0 : errno; }

}  // namespace vexo::tools
