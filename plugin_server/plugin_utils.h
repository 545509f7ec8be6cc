#ifndef PLUGIN_SERVER_PLUGIN_UTILS_H_
#define PLUGIN_SERVER_PLUGIN_UTILS_H_

#include <cstdint>
#include <functional>
#include <string>

#include "lun_cmd.pb.h"
#include "vexo_iscsi_ep.h"

namespace vexo::scsiplugin {

// Looks one LUN up in the appliance's iSCSI configuration. Each lookup loads the whole
// configuration and frees it again, and blocks for as long as the library takes; nothing is shared
// or cached, so any thread may call. A configuration that cannot be loaded is logged and reads as
// "not found".

// Masks of a LUN's type flags; a LUN matches a mask when it has all its bits.
inline constexpr std::uint32_t LUN_FLAGS_ALL_LOW4 = 0xF;
inline constexpr std::uint32_t LUN_FLAGS_BLUN_REPLICA = 0x103;  // needs no mirror

inline bool has_all_flags(const tag_iscsi_lun_& lun, std::uint32_t mask) {
  return (lun.type_flags & mask) == mask;
}

// Copies the first LUN, in the configuration's order, for which `pred` returns true into `out`.
// Returns whether there was one; if not, `out` is unchanged. A null `out` finds nothing. Throws
// std::bad_function_call when `pred` is empty and the configuration has a LUN.
bool GetLunConfByFunc(tag_iscsi_lun_* out, const std::function<bool(const tag_iscsi_lun_*)>& pred);

// By page-83h identifier: "6001405" and the first 25 characters of the LUN's own identifier, with
// every '-' read as the hex digit 'd'. Upper-case digits never match.
bool GetLunConfByNAA(tag_iscsi_lun_* out, const std::string& naa);

// By page-80h identifier: the LUN's own, exactly.
bool GetLunConfByGUID(tag_iscsi_lun_* out, const std::string& guid);

// By the kind of identifier that `type` names. For any other type: false, and nothing is loaded.
bool GetLunConf(tag_iscsi_lun_* out, const std::string& lun_id, LunType type);

// Whether a host plugin can take part in snapshots of the LUN.
bool IsLunSupport(LunType type, const std::string& lun_id);

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PLUGIN_UTILS_H_
