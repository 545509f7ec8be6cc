#ifndef FUZZ_INVENTORY_H_
#define FUZZ_INVENTORY_H_

#include "fake_conf.h"

namespace vexo::fuzz {

// The LUNs that a target finds: one that is mirrored, one that needs no mirror, an unsupported one.
// The identifiers are those of the sample inventory, and stand in the corpus too.
inline const test::fake_conf::luns kInventory = {
    {"1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", 0xF},
    {"c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e", 0x103},
    {"0e984725-c51c-4bf4-9960-e1c80e27aba0", 0x7},
};

}  // namespace vexo::fuzz

#endif  // FUZZ_INVENTORY_H_
