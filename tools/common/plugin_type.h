#ifndef TOOLS_COMMON_PLUGIN_TYPE_H_
#define TOOLS_COMMON_PLUGIN_TYPE_H_

#include <CLI/CLI.hpp>
#include <string>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

// "vmware"; the number of a type that is not in the schema.
std::string plugin_type_name(scsiplugin::PluginClient::Type type);

// Adds --type, which sets `type`; the default is the type's value now.
void add_type_option(CLI::App& app, scsiplugin::PluginClient::Type& type,
                     const std::string& description);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_PLUGIN_TYPE_H_
