#ifndef TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_
#define TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_

#include "plugin_cmd.pb.h"
#include "session.h"

namespace vexo::tools {

// The plugins whose connection is alive, in the order of their ids. Throws as session::ask.
scsiplugin::PluginClientList list_plugins(session& with);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_REGISTRY_VERBS_H_
