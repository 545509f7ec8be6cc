#include <algorithm>
#include <memory>

#include "common/plugin_type.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using google::protobuf::Empty;
using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;

exit_code list(session& with) {
  auto plugins = with.ask<Empty, PluginClientList>("PluginConnList", &service_stub::PluginConnList,
                                                   Empty(), with.limits());
  std::sort(plugins.mutable_list()->begin(), plugins.mutable_list()->end(),
            [](const auto& a, const auto& b) { return a.plugin_id() < b.plugin_id(); });
  if (with.format == output_format::json) {
    print(to_json(plugins) + "\n");
    return exit_code::done;
  }
  table rows({"PLUGIN ID", "IP", "TYPE"});
  for (const PluginClient& plugin : plugins.list()) {
    rows.add({plugin.plugin_id(), plugin.ip(), plugin_type_name(plugin.type())});
  }
  print(rows.text());
  if (plugins.list().empty()) say("no plugin is subscribed");
  return exit_code::done;
}

exit_code unsubscribe(session& with, const std::string& plugin_id) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  const Empty answer = with.ask<PluginClient, Empty>(
      "UnSubscribe of " + plugin_id, &service_stub::UnSubscribe, request, with.limits(),
      "repeat it: unsubscribing twice does no harm");
  return print_verdict(with, "UnSubscribe", plugin_id, answer, true, "");
}

}  // namespace

void add_registry_verbs(CLI::App& app, session& with) {
  add_verb(app, with, "list", "Lists the host plugins that are subscribed and connected",
           "plugin_ctl list\nplugin_ctl -o json list\nwatch -n1 plugin_ctl list",
           [&with] { return list(with); });

  const auto plugin_id = std::make_shared<std::string>();
  CLI::App* const remove =
      add_verb(app, with, "unsubscribe",
               "Ends a plugin's subscription, also one whose host has vanished.\n"
               "The daemon answers yes for an unknown id too",
               "plugin_ctl unsubscribe host-17",
               [&with, plugin_id] { return unsubscribe(with, *plugin_id); });
  add_text(*remove, "PLUGIN_ID", *plugin_id, "The id, as `plugin_ctl list` shows it")->required();
}

}  // namespace vexo::tools
