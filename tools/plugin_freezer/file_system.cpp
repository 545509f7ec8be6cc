#include "plugin_freezer/file_system.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

std::string errno_text() { return std::generic_category().message(errno); }

// The kernel writes blanks and some other characters as "\040".
std::string unescaped(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
  if (!real) throw std::runtime_error(path + " cannot be frozen: " + errno_text());
  return real.get();
}

}  // namespace

std::vector<mount_entry> mount_table(const std::string& file) {
  // 36 35 98:0 /root /mount/point rw,noatime shared:1 - ext4 /dev/sda1 rw
  std::vector<mount_entry> found;
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    mount_entry entry;
    unsigned device_major = 0;
    unsigned device_minor = 0;
    char colon = 0;
    std::string word;
    words >> entry.id >> word >> device_major >> colon >> device_minor >> entry.root >>
        entry.mount_point;
    while (words >> word && word != "-") {
    }
    if (!(words >> entry.type)) continue;
    words >> entry.source;
    entry.device = makedev(device_major, device_minor);
    for (auto* text : {&entry.root, &entry.mount_point, &entry.source}) *text = unescaped(*text);
    found.push_back(std::move(entry));
  }
  return found;
}

int mount_id_of(int fd) {
  std::ifstream facts("/proc/self/fdinfo/" + std::to_string(fd));
  for (std::string name; facts >> name;) {
    int id = -1;
    if (name == "mnt_id:" && facts >> id) return id;
  }
  return -1;
}

std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points,
                                           std::vector<std::string>* remarks) {
  const auto remark = [&](const std::string& text) {
    if (remarks != nullptr) remarks->push_back(text);
  };
  const auto table = mount_table();
  std::map<std::ptrdiff_t, file_system, std::greater<>> by_place;
  for (const auto& given : mount_points) {
    const std::string path = resolved(given);
    file_system opened;
    opened.root = unique_fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.root) throw std::runtime_error(given + " cannot be frozen: " + errno_text());
    const int id = mount_id_of(opened.root.get());
    const auto mount =
        std::find_if(table.begin(), table.end(), [&](const auto& entry) { return entry.id == id; });
    if (mount == table.end() || mount->mount_point != path) {
      throw std::runtime_error(given + " cannot be frozen: nothing is mounted there");
    }
    opened.mount = *mount;
    if (mount->root != "/") {
      remark(given + " is only " + mount->root + " of the file system on " + mount->source +
             ", all of which is frozen");
    }
    const auto same = std::find_if(by_place.begin(), by_place.end(), [&](const auto& other) {
      return other.second.mount.device == mount->device;
    });
    if (same == by_place.end()) {
      by_place.emplace(mount - table.begin(), std::move(opened));
    } else {
      remark(given + " and " + same->second.mount.mount_point +
             " are one file system, which is frozen once");
    }
  }
  std::vector<file_system> opened;
  opened.reserve(by_place.size());
  for (auto& [place, one] : by_place) opened.push_back(std::move(one));
  return opened;
}

bool cannot_be_frozen(const std::string& type) {
  // File systems in memory, on the network or in user space, the kernel's own (such as proc), and
  // those on disks that cannot be frozen.
  static const std::set<std::string> without = {
      "9p",    "autofs", "ceph",    "cgroup",  "cgroup2",  "cifs",  "devpts", "devtmpfs",
      "exfat", "fuse",   "fuseblk", "iso9660", "msdos",    "nfs",   "nfs4",   "overlay",
      "proc",  "ramfs",  "smb3",    "sysfs",   "squashfs", "tmpfs", "vfat",   "virtiofs"};
  return without.contains(type) || type.starts_with("fuse.");
}

dev_t superblock_of(const std::string& path) {
  const unique_fd file(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file) throw std::runtime_error(path + ": " + errno_text());
  const int id = mount_id_of(file.get());
  for (const auto& entry : mount_table()) {
    if (entry.id == id) return entry.device;
  }
  throw std::runtime_error(path + " lies on no mounted file system");
}

namespace {

// The superblock that `path` lies on, found by comparing paths: the file is not opened, because its
// storage may have stalled. 0 when nothing is mounted above it.
dev_t superblock_above(const std::string& path, const std::vector<mount_entry>& table) {
  const mount_entry* above = nullptr;
  for (const auto& entry : table) {
    const std::string folder = entry.mount_point == "/" ? "/" : entry.mount_point + "/";
    const bool is_nearer =
        above == nullptr || entry.mount_point.size() >= above->mount_point.size();
    if (path.starts_with(folder) && is_nearer) above = &entry;
  }
  return above == nullptr ? 0 : above->device;
}

// Whether anything below this block device is a file on one of these superblocks.
bool lies_on(dev_t device, const std::set<dev_t>& superblocks,
             const std::vector<mount_entry>& table) {
  namespace fs = std::filesystem;
  fs::path folder =
      "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
  if (fs::exists(folder / "partition")) folder = fs::canonical(folder).parent_path();
  std::string backing;
  if (std::ifstream file(folder / "loop/backing_file"); std::getline(file, backing)) {
    const dev_t below = superblock_above(backing, table);
    return superblocks.contains(below) || lies_on(below, superblocks, table);
  }
  std::error_code error;
  for (const auto& below : fs::directory_iterator(folder / "slaves", error)) {
    unsigned numbers[2] = {};
    char colon = 0;
    std::ifstream(below.path() / "dev") >> numbers[0] >> colon >> numbers[1];
    if (lies_on(makedev(numbers[0], numbers[1]), superblocks, table)) return true;
  }
  return false;
}

}  // namespace

dev_t block_device_of(const mount_entry& mount) {
  if (major(mount.device) != 0) return mount.device;
  struct stat source = {};
  const bool is_device = mount.source.starts_with("/dev/") &&
                         stat(mount.source.c_str(), &source) == 0 && S_ISBLK(source.st_mode);
  return is_device ? source.st_rdev : 0;
}

bool are_stacked(const std::vector<mount_entry>& mounts) {
  std::set<dev_t> superblocks;
  for (const auto& mount : mounts) superblocks.insert(mount.device);
  const auto table = mount_table();
  return mounts.size() > 1 && std::any_of(mounts.begin(), mounts.end(), [&](const auto& mount) {
           const dev_t device = block_device_of(mount);
           return device == 0 || lies_on(device, superblocks, table);
         });
}

int freeze_file_system(int root) noexcept { return ioctl(root, FIFREEZE, 0) == 0 ? 0 : errno; }

int thaw_file_system(int root) noexcept { return ioctl(root, FITHAW, 0) == 0 ? 0 : errno; }

}  // namespace vexo::tools
