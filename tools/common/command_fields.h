#ifndef TOOLS_COMMON_COMMAND_FIELDS_H_
#define TOOLS_COMMON_COMMAND_FIELDS_H_

#include <string>
#include <vector>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

struct command_field {
  std::string name;  // as in the schema
  std::string value;
  bool is_zero = true;  // not sent on the wire
};

// Which member of cmd_body is set, as named in the schema: "init_snapshot_req". Empty for none.
std::string command_name(const scsiplugin::PluginCmd& command);

// The command's own fields, then those of its body, in the schema's order.
std::vector<command_field> command_fields(const scsiplugin::PluginCmd& command);

// Environment variables for the programs that are started for a command: `VEXO_` and the name of
// each field in capitals, `VEXO_SRC_LUN_P80=1a2b...`; and `VEXO_COMMAND`, the command's name.
// Fields of value zero are included, so that no old variable is inherited. A value ends at its
// first NUL.
std::vector<std::string> command_environment(const scsiplugin::PluginCmd& command);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_COMMAND_FIELDS_H_
