#ifndef TOOLS_COMMON_LUN_NAA_H_
#define TOOLS_COMMON_LUN_NAA_H_

#include <string>

namespace vexo::tools {

// The NAA that the daemon derives from a UUID: the vendor's prefix, then the first 25 characters of
// the UUID with each '-', which is no hex digit, replaced by 'd'. A host may see another one in
// page 83h: the kernel's target leaves the '-' out.
inline std::string naa_of(const std::string& uuid) {
  std::string naa = "6001405" + uuid.substr(0, 25);
  for (char& c : naa) {
    if (c == '-') c = 'd';
  }
  return naa;
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_LUN_NAA_H_
