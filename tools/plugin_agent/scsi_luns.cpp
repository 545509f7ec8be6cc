#include "plugin_agent/scsi_luns.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include "common/text.h"
#include "plugin_agent/vpd_pages.h"
#include "plugin_freezer/file_system.h"

namespace vexo::tools {

namespace {

namespace fs = std::filesystem;

constexpr char kBlockDevices[] = "/sys/block";
constexpr char kDisk[] = "0";  // the peripheral device type of a disk
constexpr std::uint64_t kSector = 512;

// Empty where there is none. Never more than a page of VPD can be.
std::optional<std::string> bytes_of(const fs::path& path) {
  constexpr std::size_t kMost = 4 + 0xFFFF;
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string bytes(kMost, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(kMost));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

// The first line without blanks around it.
std::string word_in(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  const auto first = line.find_first_not_of(' ');
  return first == std::string::npos ? ""
                                    : line.substr(first, line.find_last_not_of(' ') - first + 1);
}

std::vector<fs::path> entries_of(const fs::path& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    found.push_back(entry->path());
  }
  return found;
}

// A disk's own device, its partitions and whatever is built of them: LVM, multipath, md.
struct stack {
  std::set<dev_t> devices;
  std::string multipath;  // "mpatha"; empty without one
  std::set<fs::path> seen;

  void add(const fs::path& folder) {
    if (!seen.insert(folder).second) return;
    unsigned numbers[2] = {};
    char colon = 0;
    if (std::ifstream(folder / "dev") >> numbers[0] >> colon >> numbers[1]) {
      devices.insert(makedev(numbers[0], numbers[1]));
    }
    if (word_in(folder / "dm/uuid").starts_with("mpath-")) multipath = word_in(folder / "dm/name");
    std::error_code error;
    for (const auto& below : entries_of(folder)) {
      if (fs::exists(below / "partition", error)) add(below);
    }
    for (const auto& holder : entries_of(folder / "holders")) {
      add(fs::path(kBlockDevices) / holder.filename());
    }
  }
};

bool is_scsi_disk(const fs::path& folder) {
  std::error_code error;
  const fs::path device = folder / "device";
  return word_in(device / "type") == kDisk &&
         (fs::exists(device / "vpd_pg80", error) || fs::exists(device / "vpd_pg83", error) ||
          fs::exists(device / "scsi_level", error));
}

void note_problem(HostLun& lun, const std::string& page, const std::string& problem) {
  if (problem.empty()) return;
  lun.set_problem(lun.problem() + (lun.problem().empty() ? "" : "; ") + page + " " + problem);
}

// "naa.6001405...", which the kernel has made of page 83h.
designator from_wwid(const std::string& wwid) {
  for (const auto& [prefix, type] :
       {std::pair("naa.", "NAA"), std::pair("eui.", "EUI-64"), std::pair("t10.", "T10")}) {
    if (wwid.starts_with(prefix)) return {type, "LUN", wwid.substr(4)};
  }
  return {};
}

HostLun describe(const fs::path& folder) {
  HostLun lun;
  const fs::path device = folder / "device";
  std::string problem;
  if (const auto page = bytes_of(device / "vpd_pg80")) {
    lun.set_page_80(printable(decode_page_80(*page, problem)));
  }
  note_problem(lun, "page 80h", std::exchange(problem, ""));
  std::vector<designator> all;
  if (const auto page = bytes_of(device / "vpd_pg83")) all = decode_page_83(*page, problem);
  note_problem(lun, "page 83h", problem);
  if (best_designator(all) == nullptr) {
    if (auto known = from_wwid(word_in(device / "wwid")); !known.id.empty()) {
      all.push_back(std::move(known));
    }
  }
  for (const auto& one : all) {
    auto& shown = *lun.add_designators();
    shown.set_type(one.type);
    shown.set_association(one.association);
    shown.set_id(printable(one.id));
  }
  if (const auto* const best = best_designator(all)) lun.set_page_83(printable(best->id));
  // The appliance announces a LUN by its page 80h, and by the rest only where its caller says so.
  lun.set_lun(lun.page_80().empty() ? lun.page_83() : lun.page_80());
  lun.set_vendor(printable(word_in(device / "vendor")));
  lun.set_model(printable(word_in(device / "model")));
  std::uint64_t sectors = 0;
  std::ifstream(folder / "size") >> sectors;
  lun.set_bytes(sectors * kSector);
  lun.add_paths(printable(folder.filename().string()));
  lun.set_device("/dev/" + lun.paths(0));
  return lun;
}

// Where file systems on these devices are mounted.
std::set<std::string> mount_points_on(const std::set<dev_t>& devices,
                                      const std::vector<mount_entry>& mounts) {
  std::set<std::string> found;
  for (const auto& mount : mounts) {
    if (devices.contains(block_device_of(mount))) found.insert(printable(mount.mount_point));
  }
  return found;
}

bool is_same_lun(const HostLun& a, const HostLun& b) {
  const auto identity = [](const HostLun& lun) {
    return std::tie(lun.page_83(), lun.page_80(), lun.vendor(), lun.model());
  };
  return !a.lun().empty() && identity(a) == identity(b);
}

// "sdb" before "sdaa", as they were found by the kernel.
bool comes_before(const fs::path& a, const fs::path& b) {
  const auto key = [](const fs::path& path) {
    const std::string name = path.filename();
    return std::pair(name.size(), name);
  };
  return key(a) < key(b);
}

}  // namespace

std::vector<HostLun> scsi_luns() {
  const auto mounts = mount_table();
  auto folders = entries_of(kBlockDevices);
  std::sort(folders.begin(), folders.end(), comes_before);
  std::vector<HostLun> luns;
  for (const auto& folder : folders) {
    if (!is_scsi_disk(folder)) continue;
    HostLun lun = describe(folder);
    stack above;
    above.add(folder);
    const auto points = mount_points_on(above.devices, mounts);
    auto known = std::find_if(luns.begin(), luns.end(),
                              [&](const HostLun& other) { return is_same_lun(other, lun); });
    if (known == luns.end()) {
      known = luns.insert(luns.end(), std::move(lun));
    } else {
      known->add_paths(lun.paths(0));
    }
    if (!above.multipath.empty()) known->set_device("/dev/mapper/" + printable(above.multipath));
    std::set<std::string> all(known->file_systems().begin(), known->file_systems().end());
    all.insert(points.begin(), points.end());
    *known->mutable_file_systems() = {all.begin(), all.end()};
  }
  return luns;
}

}  // namespace vexo::tools
