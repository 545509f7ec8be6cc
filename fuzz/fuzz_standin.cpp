// The stand-in's JSON: whatever the file holds, a load gives a sound list or says once why not, and
// the daemon finds by its identifiers every LUN that was loaded.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "captured_syslog.h"
#include "plugin_utils.h"
#include "target.h"

namespace {

using vexo::scsiplugin::GetLunConf;
using vexo::scsiplugin::LUN_TYPE_80;
using vexo::scsiplugin::LUN_TYPE_83;

using inventory = std::vector<std::pair<std::string, std::uint32_t>>;

// The file that the stand-in reads, in memory.
class conf_file {
 public:
  conf_file() : fd_(memfd_create("luns.json", MFD_CLOEXEC)) {
    setenv("VEXO_ISCSI_CONF", ("/proc/self/fd/" + std::to_string(fd_)).c_str(), 1);
  }

  void write(const std::uint8_t* data, std::size_t size) const {
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    ASSERT_EQ(pwrite(fd_, data, size, 0), static_cast<ssize_t>(size));
  }

 private:
  int fd_;
};

int load(inventory* luns) {
  conf_holder holder = {};
  load_request request = {};
  request.what = 0x7000;
  for (auto* head : {&holder.luns, &holder.second, &holder.third}) head->next = head->prev = head;
  const int result = VEXOiSCSIConfGet(&request, &holder, &holder.third, &holder.second);
  for (const list_head* link = holder.luns.next; link != &holder.luns; link = link->next) {
    EXPECT_EQ(link->next->prev, link);
    const auto* const lun = reinterpret_cast<const tag_iscsi_lun_*>(
        reinterpret_cast<const char*>(link) - offsetof(tag_iscsi_lun_, link));
    const std::size_t length = strnlen(lun->identifier, sizeof lun->identifier);
    EXPECT_LT(length, sizeof lun->identifier);
    luns->emplace_back(std::string(lun->identifier, length), lun->type_flags);
  }
  VEXOiSCSIConfFree(&holder);
  return result;
}

std::string naa_of(const std::string& identifier) {
  std::string naa = "6001405" + identifier.substr(0, 25);
  std::replace(naa.begin(), naa.end(), '-', 'd');
  return naa;
}

void expect_found(const inventory& luns, std::size_t wanted) {
  const std::string& identifier = luns[wanted].first;
  const auto first = std::find_if(luns.begin(), luns.end(),
                                  [&](const auto& lun) { return lun.first == identifier; });
  const auto first_naa = std::find_if(luns.begin(), luns.end(), [&](const auto& lun) {
    return naa_of(lun.first) == naa_of(identifier);
  });
  tag_iscsi_lun_ lun = {};
  ASSERT_TRUE(GetLunConf(&lun, identifier, LUN_TYPE_80));
  EXPECT_EQ(lun.type_flags, first->second);
  ASSERT_TRUE(GetLunConf(&lun, naa_of(identifier), LUN_TYPE_83));
  EXPECT_EQ(lun.type_flags, first_naa->second);
  EXPECT_EQ(lun.identifier, first_naa->first);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const conf_file file;
  file.write(data, size);
  vexo::test::captured_syslog().clear();

  inventory luns;
  if (load(&luns) != 0) {
    EXPECT_TRUE(luns.empty());
    const auto lines = vexo::test::captured_syslog().lines();
    EXPECT_EQ(lines.size(), 1U);
    tag_iscsi_lun_ lun = {};
    EXPECT_FALSE(GetLunConf(&lun, "", LUN_TYPE_80));
    return 0;
  }
  EXPECT_TRUE(vexo::test::captured_syslog().lines().empty());
  inventory again;
  EXPECT_EQ(load(&again), 0);
  EXPECT_EQ(again, luns);
  // Each lookup is a load: the first, the last and one in the middle stand for all.
  if (luns.empty()) return 0;
  for (const std::size_t i : {std::size_t{0}, luns.size() / 2, luns.size() - 1}) {
    expect_found(luns, i);
  }
  return 0;
}
