#ifndef TOOLS_PLUGIN_CTL_LUN_GROUP_H_
#define TOOLS_PLUGIN_CTL_LUN_GROUP_H_

#include <string>
#include <vector>

#include "handshake.h"

namespace vexo::tools {

// The LUNs of one snapshot, in the order in which the user named them.
using lun_group = std::vector<handshake>;

// Reads a JSON array of GroupLun. Throws tool_error, with FILE, place and reason, when FILE cannot
// be read, is no such array, or names a LUN twice, without its page-80h identifier, or none at all.
lun_group read_lun_group(const std::string& file);

// What a command run for the whole group gets to know: for one LUN the variables of
// command_environment() and of the destination; for several the same with the LUNs' values in the
// group's order, separated by spaces, "-" for one that is not known.
std::vector<std::string> group_environment(const lun_group& luns);

// The group as a file of JSON, as read_lun_group() takes it, for VEXO_GROUP. Removed with the
// object.
class group_file {
 public:
  explicit group_file(const lun_group& luns);  // throws std::system_error
  ~group_file();
  group_file(const group_file&) = delete;
  group_file& operator=(const group_file&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_LUN_GROUP_H_
