#include "registry_verbs.h"

#include <unistd.h>

#include <algorithm>
#include <memory>

#include "common/plugin_type.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using google::protobuf::Empty;
using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;

constexpr std::chrono::seconds kRepaintEvery{1};
constexpr char kClearScreen[] = "\x1b[H\x1b[2J";

shown_text rendered(const session& with, const PluginClientList& plugins) {
  if (with.format == output_format::json) return to_json(plugins) + "\n";
  table rows({"PLUGIN ID", "IP", "TYPE"});
  for (const PluginClient& plugin : plugins.list()) {
    rows.add({plugin.plugin_id(), plugin.ip(), plugin_type_name(plugin.type())});
  }
  return rows.text();
}

exit_code list_once(session& with) {
  const PluginClientList plugins = list_plugins(with);
  print(rendered(with, plugins));
  if (plugins.list().empty() && with.format == output_format::table) say("no plugin is subscribed");
  return exit_code::done;
}

// Repaints a terminal every second; elsewhere writes the list anew whenever it has changed. A
// daemon that goes away later on is reported and waited for.
exit_code list_watch(session& with) {
  const bool repaint = with.format == output_format::table && is_lively(STDOUT_FILENO);
  shown_text shown;
  shown_text shown_error;
  for (bool first = true;; first = false) {
    try {
      const shown_text now = rendered(with, list_plugins(with));
      if (repaint) {
        print(kClearScreen + now + "\n" + printable(with.where.text) +
              ", every second; Ctrl-C ends\n");
      } else if (now != shown) {
        print(now);
      }
      shown = now;
      if (!shown_error.empty()) say("the daemon answers again");
      shown_error = shown_text();
    } catch (const tool_error& error) {
      if (first || error.code != exit_code::unreachable) throw;
      if (shown_error.empty()) say(error.text + "; asking on, Ctrl-C ends");
      shown_error = error.text;
    }
    if (with.stop.wait({}, std::chrono::steady_clock::now() + kRepaintEvery) !=
        interrupt::wake::timeout) {
      return exit_code::interrupted;
    }
  }
}

exit_code unsubscribe(session& with, const std::string& plugin_id) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  const Empty answer =
      with.ask<PluginClient, Empty>("UnSubscribe of " + plugin_id, &service_stub::UnSubscribe,
                                    request, with.limits(), "repeat it: twice does no harm");
  return print_verdict(with, "UnSubscribe", plugin_id, answer, true, "");
}

}  // namespace

PluginClientList list_plugins(session& with) {
  auto plugins = with.ask<Empty, PluginClientList>("PluginConnList", &service_stub::PluginConnList,
                                                   Empty(), with.limits());
  std::sort(plugins.mutable_list()->begin(), plugins.mutable_list()->end(),
            [](const auto& a, const auto& b) { return a.plugin_id() < b.plugin_id(); });
  return plugins;
}

void add_registry_verbs(CLI::App& app, session& with) {
  const auto watch = std::make_shared<bool>(false);
  CLI::App* const list =
      add_verb(app, with, "list", "Lists the host plugins that are subscribed and connected",
               "plugin_ctl list\nplugin_ctl list --watch\nplugin_ctl -o json list",
               [&with, watch] { return *watch ? list_watch(with) : list_once(with); });
  list->add_flag("--watch", *watch,
                 "Goes on until Ctrl-C: repaints a terminal every second, elsewhere prints the "
                 "list again whenever it has changed");

  const auto plugin_id = std::make_shared<std::string>();
  CLI::App* const remove =
      add_verb(app, with, "unsubscribe",
               "Ends a plugin's subscription, also one whose host has vanished.\n"
               "The daemon says yes to an id it does not know too",
               "plugin_ctl unsubscribe host-17",
               [&with, plugin_id] { return unsubscribe(with, *plugin_id); });
  add_text(*remove, "PLUGIN_ID", *plugin_id, "The id, as `plugin_ctl list` shows it")->required();
}

}  // namespace vexo::tools
