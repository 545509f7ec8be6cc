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
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

std::string errno_text() { return std::generic_category().message(errno); }

// Each mount point's place in the order of mounting; the topmost counts where several are stacked.
std::map<std::string, int> mount_order() {
  const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent("/proc/self/mounts", "re"),
                                                    endmntent);
  if (!table) throw std::runtime_error("/proc/self/mounts cannot be read: " + errno_text());
  std::map<std::string, int> order;
  mntent entry = {};
  char buffer[16384];
  for (int place = 0; getmntent_r(table.get(), &entry, buffer, sizeof buffer) != nullptr; ++place) {
    order[entry.mnt_dir] = place;
  }
  return order;
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
  if (!real) throw std::runtime_error(path + " cannot be frozen: " + errno_text());
  return real.get();
}

}  // namespace

std::vector<file_system> open_file_systems(const std::vector<std::string>& mount_points) {
  if (mount_points.empty()) return {};
  const auto order = mount_order();
  std::map<int, file_system, std::greater<>> by_place;
  for (const auto& given : mount_points) {
    const std::string path = resolved(given);
    const auto place = order.find(path);
    if (place == order.end()) {
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
    if (!known) by_place.emplace(place->second, std::move(opened));
  }
  std::vector<file_system> opened;
  opened.reserve(by_place.size());
  for (auto& [place, one] : by_place) opened.push_back(std::move(one));
  return opened;
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
