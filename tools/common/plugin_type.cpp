#include "common/plugin_type.h"

#include <map>

namespace vexo::tools {

using scsiplugin::PluginClient;

namespace {

const std::map<std::string, PluginClient::Type>& types() {
  static const std::map<std::string, PluginClient::Type> all = {{"unknown", PluginClient::UNKNOWN},
                                                                {"vmware", PluginClient::VMWARE},
                                                                {"windows", PluginClient::WINDOWS}};
  return all;
}

}  // namespace

std::string plugin_type_name(PluginClient::Type type) {
  for (const auto& [name, value] : types()) {
    if (value == type) return name;
  }
  return std::to_string(type);
}

void add_type_option(CLI::App& app, PluginClient::Type& type, const std::string& description) {
  app.add_option_function<std::string>(
         "--type", [&type](const std::string& name) { type = types().at(name); }, description)
      ->check(CLI::IsMember(types()))
      ->type_name("TYPE")
      ->default_str(plugin_type_name(type));
}

}  // namespace vexo::tools
