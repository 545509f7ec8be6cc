#include <spdlog/fmt/fmt.h>

#include <thread>
#include <vector>

#include "common/channel.h"
#include "common/errors.h"
#include "common/subscribe_call.h"
#include "plugin_agent/status_socket.h"
#include "plugin_agent/verbs.h"

namespace vexo::tools {

namespace {

// Asks each appliance whether it lists the agent. The agent does not ask for this itself, so that
// no question for its status has to wait for an appliance.
void ask_appliances(AgentStatus& status) {
  std::vector<std::jthread> threads;
  for (auto& one : *status.mutable_appliances()) {
    threads.emplace_back([&one, &status] {
      try {
        const auto stub =
            scsiplugin::PluginService::NewStub(make_channel(parse_endpoint(one.address())));
        const auto found = find_listed(*stub, status.plugin_id(), kCallTimeout);
        if (!found.status.ok()) {
          one.set_list_error(printable(status_text(found.status)));
        } else {
          one.set_listed(found.entry ? AgentStatus::Appliance::YES : AgentStatus::Appliance::NO);
        }
      } catch (const std::exception& error) {
        one.set_list_error(printable(error.what()));
      }
    });
  }
}

std::string listed_text(const AgentStatus::Appliance& one) {
  switch (one.listed()) {
    case AgentStatus::Appliance::YES:
      return "yes";
    case AgentStatus::Appliance::NO:
      return "no";
    default:
      return "no answer";
  }
}

shown_text as_tables(const AgentStatus& status) {
  shown_text text = "plugin_agent " + printable(status.version()) + ", process " +
                    printable(std::to_string(status.pid())) + ", since " +
                    printable(status.since()) + ", subscribes as \"" +
                    printable(status.plugin_id()) + "\"\n";
  const auto add = [&](const table& rows) {
    if (rows.size() > 0) text += "\n" + rows.text();
  };
  table appliances({"APPLIANCE", "LISTED THERE", "SUBSCRIBED", "SINCE", "SEEN AS", "REASON"});
  for (const auto& one : status.appliances()) {
    appliances.add({one.appliance(), listed_text(one), one.subscribed() ? "yes" : "no", one.since(),
                    cell(one.seen_as()),
                    cell(one.reason().empty() ? one.list_error() : one.reason())});
  }
  add(appliances);
  table luns({"LUN"});
  for (const auto& lun : status.luns()) luns.add({lun});
  add(luns);
  table hooks({"HOOK", "IS RUN"});
  for (const auto& one : status.hooks()) {
    hooks.add({one.name(), one.refused().empty() ? "yes" : "no: " + one.refused()});
  }
  if (!status.hooks_problem().empty()) hooks.add({"all", "no: " + status.hooks_problem()});
  add(hooks);
  table file_systems({"FILE SYSTEM", "TYPE", "DEVICE", "CAN BE FROZEN"});
  for (const auto& one : status.file_systems()) {
    file_systems.add({one.mount_point(), cell(one.type()), cell(one.source()),
                      one.can_be_frozen() ? "yes" : "no: " + one.reason()});
  }
  add(file_systems);
  table handshakes({"HANDSHAKE OF LUN", "APPLIANCE", "STEP", "SECONDS"});
  for (const auto& one : status.handshakes()) {
    handshakes.add({one.lun(), one.appliance(), one.step(), fmt::format("{:.1f}", one.seconds())});
  }
  if (handshakes.size() == 0) handshakes.add({"none", "-", "-", "-"});
  add(handshakes);
  table verdicts({"LAST VERDICTS", "LUN", "APPLIANCE", "FROZEN MS", "VERDICT", "REASON"});
  for (const auto& one : status.last_verdicts()) {
    verdicts.add({one.time(), one.lun(), one.appliance(), std::to_string(one.frozen_ms()),
                  one.verdict(), cell(one.reason())});
  }
  if (verdicts.size() == 0) verdicts.add({"none", "-", "-", "-", "-", "-"});
  add(verdicts);
  return text;
}

}  // namespace

exit_code show_status(const agent_options& options, interrupt& /*stop*/) {
  const std::string tried = "asking the agent in " + options.run_dir;
  std::vector<agent_answer> answers;
  try {
    answers = ask_agents(options.run_dir);
  } catch (const std::runtime_error& error) {
    throw tool_error({exit_code::failed, tried, error.what(),
                      "for an agent with another --run-dir, give that --run-dir here too"});
  }
  if (answers.empty()) {
    throw tool_error({exit_code::unreachable, tried, "no agent is running",
                      "start it, \"systemctl start scsi-plugin-agent\", or name its --run-dir; "
                      "\"plugin_agent check\" says what keeps it from starting"});
  }
  exit_code worst = exit_code::done;
  shown_text text;
  for (auto& answer : answers) {
    if (!answer.error.empty()) {
      worst = exit_code::unreachable;
      say(problem{
          exit_code::unreachable, tried, "agent " + std::to_string(answer.pid) + " " + answer.error,
          "see its log; it holds up no thaw, and \"plugin_agent --thaw-and-exit\" thaws now"}
              .text());
      continue;
    }
    ask_appliances(answer.status);
    if (options.format == output_format::json) {
      text += to_json(answer.status) + "\n";
    } else {
      if (!text.empty()) text += "\n";
      text += as_tables(answer.status);
    }
  }
  print(text);
  return worst;
}

}  // namespace vexo::tools
