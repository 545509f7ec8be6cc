#include "plugin_utils.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "log.h"

namespace vexo::scsiplugin {

namespace {

constexpr char kLogSource[] = "plugin_utils";

constexpr std::uint32_t kLoadWhat = 0x7000;

constexpr std::string_view kNaaPrefix = "6001405";  // NAA 6h, IEEE company id 001405h
constexpr std::size_t kNaaIdentifierLength = 25;    // 7 + 25: the 32 digits of an NAA identifier

// Frees the configuration on every return.
struct loaded_conf : conf_holder {
  loaded_conf() : conf_holder() {}
  ~loaded_conf() { VEXOiSCSIConfFree(this); }
  loaded_conf(const loaded_conf&) = delete;
  loaded_conf& operator=(const loaded_conf&) = delete;
};

void make_empty(list_head* list) { list->next = list->prev = list; }

const tag_iscsi_lun_* lun_of(const list_head* link) {
  return reinterpret_cast<const tag_iscsi_lun_*>(reinterpret_cast<const char*>(link) -
                                                 offsetof(tag_iscsi_lun_, link));
}

std::string_view identifier_of(const tag_iscsi_lun_* lun) {
  return {lun->identifier, strnlen(lun->identifier, sizeof lun->identifier)};
}

}  // namespace

bool GetLunConfByFunc(tag_iscsi_lun_* out, const std::function<bool(const tag_iscsi_lun_*)>& pred) {
  loaded_conf conf;
  if (out == nullptr) return false;

  load_request request = {};
  request.what = kLoadWhat;
  make_empty(&conf.luns);
  make_empty(&conf.second);
  make_empty(&conf.third);
  if (VEXOiSCSIConfGet(&request, &conf, &conf.third, &conf.second) != 0) {
    PLUGIN_LOG(LOG_ERR, 20, "Failed to get config");
    return false;
  }

  for (const list_head* link = conf.luns.next; link != &conf.luns; link = link->next) {
    const tag_iscsi_lun_* const lun = lun_of(link);
    if (pred(lun)) {
      std::memcpy(out, lun, sizeof *out);
      return true;
    }
  }
  return false;
}

bool GetLunConfByNAA(tag_iscsi_lun_* out, const std::string& naa) {
  return GetLunConfByFunc(out, [&naa](const tag_iscsi_lun_* lun) {
    char candidate[kNaaPrefix.size() + kNaaIdentifierLength];
    const std::string_view kept = identifier_of(lun).substr(0, kNaaIdentifierLength);
    char* const digits = std::copy(kNaaPrefix.begin(), kNaaPrefix.end(), candidate);
    char* const end = std::replace_copy(kept.begin(), kept.end(), digits, '-', 'd');
    return naa == std::string_view(candidate, static_cast<std::size_t>(end - candidate));
  });
}

bool GetLunConfByGUID(tag_iscsi_lun_* out, const std::string& guid) {
  return GetLunConfByFunc(
      out, [&guid](const tag_iscsi_lun_* lun) { return guid == identifier_of(lun); });
}

bool GetLunConf(tag_iscsi_lun_* out, const std::string& lun_id, LunType type) {
  switch (type) {
    case LUN_TYPE_80:
      return GetLunConfByGUID(out, lun_id);
    case LUN_TYPE_83:
      return GetLunConfByNAA(out, lun_id);
    default:
      return false;
  }
}

bool IsLunSupport(LunType type, const std::string& lun_id) {
  tag_iscsi_lun_ lun = {};
  return GetLunConf(&lun, lun_id, type) &&
         (has_all_flags(lun, LUN_FLAGS_ALL_LOW4) || has_all_flags(lun, LUN_FLAGS_BLUN_REPLICA));
}

}  // namespace vexo::scsiplugin
