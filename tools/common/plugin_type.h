#ifndef TOOLS_COMMON_PLUGIN_TYPE_H_
#define TOOLS_COMMON_PLUGIN_TYPE_H_

#include <CLI/CLI.hpp>
#include <map>
#include <string>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

// The kinds of host plugins, as the tools show and take them.
inline const std::map<std::string, scsiplugin::PluginClient::Type> kPluginTypes = {
    {"unknown", scsiplugin::PluginClient::UNKNOWN},
    {"vmware", scsiplugin::PluginClient::VMWARE},
    {"windows", scsiplugin::PluginClient::WINDOWS}};

// "vmware"; the number of a type that is not in the schema.
inline std::string plugin_type_name(scsiplugin::PluginClient::Type type) {
  for (const auto& [name, value] : kPluginTypes) {
    if (value == type) return name;
  }
  return std::to_string(type);
}

// Adds --type, which sets `type`; without it `type` stays as it is.
inline void add_type_option(CLI::App& app, scsiplugin::PluginClient::Type& type,
                            const std::string& description) {
  const auto set = [&type](const std::string& name) { type = kPluginTypes.at(name); };
  app.add_option_function<std::string>("--type", set, description)
      ->check(CLI::IsMember(kPluginTypes))
      ->type_name("TYPE")
      ->default_str(plugin_type_name(type));
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_PLUGIN_TYPE_H_
