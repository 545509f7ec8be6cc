#ifndef TOOLS_PLUGIN_CTL_LUN_GROUP_H_
#define TOOLS_PLUGIN_CTL_LUN_GROUP_H_

#include <string>
#include <vector>

#include "handshake.h"

namespace vexo::tools {

// The LUNs of one snapshot, in the order in which the user named them.
using lun_group = std::vector<handshake>;

// Reads a JSON array of GroupLun. Throws tool_error, with FILE, place and reason, when FILE cannot
// be read or is not such an array, when it names no LUN or one twice, and when a LUN has no
// page-80h identifier.
lun_group read_lun_group(const std::string& file);

// The environment variables for a command that is run for the whole group: those of
// command_environment() and of the destination. For several LUNs each has the LUNs' values in the
// group's order, separated by spaces, "-" for one that is not known.
std::vector<std::string> group_environment(const lun_group& luns);

// The group as a JSON file that read_lun_group() can read, for VEXO_GROUP. The destructor removes
// the file.
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
