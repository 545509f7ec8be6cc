#ifndef VEXO_ISCSI_EP_H_
#define VEXO_ISCSI_EP_H_

// The part of the appliance's iSCSI configuration library, libvexoiscsiep.so.6, that the daemon
// relies on. The library is closed: the members called opaque are its own and are never read.
// Every offset and size below is its binary interface.

// A C header, like the library. NOLINTBEGIN(modernize-deprecated-headers)
#include <assert.h>
#include <stddef.h>
#include <stdint.h>
// NOLINTEND(modernize-deprecated-headers)

#ifdef __cplusplus
extern "C" {
#endif

// A link of a circular list. An empty list's head points at itself.
struct list_head {
  struct list_head* next;
  struct list_head* prev;
};

// One LUN. `link` chains the records of one loaded configuration.
struct tag_iscsi_lun_ {
  uint8_t opaque0[40];
  uint32_t type_flags;
  uint8_t opaque1[41];
  // The LUN's UUID text, NUL-terminated. Bytes after the NUL may hold something else.
  char identifier[4395];
  struct list_head link;
};

// Filled by one load. The caller owns it, zero-fills it and makes its three lists empty.
struct conf_holder {
  uint8_t opaque[16];
  struct list_head luns;
  struct list_head second;
  struct list_head third;
};

// `what` says which parts of the configuration to load.
struct load_request {
  uint32_t what;
  uint8_t opaque[76];
};

static_assert(offsetof(struct tag_iscsi_lun_, type_flags) == 40, "LUN type flags");
static_assert(offsetof(struct tag_iscsi_lun_, identifier) == 85, "LUN identifier");
static_assert(offsetof(struct tag_iscsi_lun_, link) == 4480, "LUN list link");
static_assert(sizeof(struct tag_iscsi_lun_) == 4496, "LUN record");
static_assert(offsetof(struct conf_holder, luns) == 16, "LUN list head");
static_assert(offsetof(struct conf_holder, second) == 32, "second list head");
static_assert(offsetof(struct conf_holder, third) == 48, "third list head");
static_assert(sizeof(struct conf_holder) == 64, "configuration holder");
static_assert(sizeof(struct load_request) == 80, "load request");

#define VEXO_API __attribute__((visibility("default")))

// Loads the configuration, appending its LUNs to `holder->luns`. `third` and `second` are the
// holder's own heads, in this order. Returns 0, or non-zero when nothing could be loaded.
// The daemon calls it on many threads at once, each time with a holder of the call's own.
VEXO_API int VEXOiSCSIConfGet(struct load_request* request, struct conf_holder* holder,
                              struct list_head* third, struct list_head* second);

// Frees every record of the holder's lists. Must be called after every load, also after a failed
// one. Harmless on a holder that was never loaded, whether zero-filled or with empty lists.
VEXO_API void VEXOiSCSIConfFree(struct conf_holder* holder);

#ifdef __cplusplus
}
#endif

#endif  // VEXO_ISCSI_EP_H_
