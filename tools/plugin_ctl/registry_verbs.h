#ifndef TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_
#define TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_

#include <string>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

// "vmware" for VMWARE, and back. A type that is not in the schema has its number for a name;
// another name is UNKNOWN.
std::string plugin_type_name(scsiplugin::PluginClient::Type type);
scsiplugin::PluginClient::Type plugin_type_of(const std::string& name);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_
