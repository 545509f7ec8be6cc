#include "plugin_agent/verbs.h"

#include <iostream>

#include "plugin_agent/options_file.h"

namespace vexo::tools {

namespace {

struct verb_row {
  const char* name;
  const char* description;
  const char* example;
  agent_options::need needs;
  exit_code (*run)(const agent_options& options, interrupt& stop);
};

constexpr char kTakesOptions[] =
    "The agent's own options may be given too (plugin_agent --help). Without --appliance, --lun,\n"
    "--hooks and --fs it takes those of the service: /etc/plugin_agent/plugin_agent.toml.\n\n";

constexpr verb_row kVerbs[] = {
    {"status",
     "Shows the state of the running agent: subscriptions, what it freezes, handshakes, verdicts",
     "plugin_agent status\n  plugin_agent status -o json", agent_options::need::run_dir,
     show_status},
    {"check",
     "Checks, beside an agent or without one, what a snapshot needs: rights, hooks, file systems,\n"
     "appliances and LUNs",
     "plugin_agent check\n  plugin_agent check --config /etc/plugin_agent/plugin_agent.toml -o "
     "json",
     agent_options::need::all_unchecked, check},
    {"rehearse",
     "Brings this host to rest as for a snapshot, without an appliance, and thaws it: tests hooks",
     "plugin_agent rehearse --hooks /etc/plugin_agent/hooks --fs /srv/db\n"
     "  plugin_agent rehearse --config /etc/plugin_agent/plugin_agent.toml --seconds 5",
     agent_options::need::freezing, rehearse},
    {"luns",
     "Lists the LUNs that this host sees as SCSI disks, what lies on them, and the value for --lun",
     "plugin_agent luns\n  plugin_agent luns -o json", agent_options::need::run_dir, show_luns},
};

}  // namespace

void add_verbs(CLI::App& app, agent_options& options) {
  app.require_subcommand(0, 1);
  app.fallthrough();  // the options may stand behind the verb too
  for (const verb_row& row : kVerbs) {
    const std::string takes_options =
        row.needs == agent_options::need::run_dir ? "" : kTakesOptions;
    CLI::App* const verb = app.add_subcommand(row.name, row.description);
    verb->footer(takes_options + std::string("Example:\n  ") + row.example);
    verb->add_option_function<std::string>(
            "-o,--output",
            [&options](const std::string& text) {
              options.format = text == "json" ? output_format::json : output_format::table;
            },
            "A table for people, or json for programs")
        ->check(CLI::IsMember({"table", "json"}))
        ->type_name("FORMAT")
        ->default_str("table");
    if (row.run == rehearse) {
      constexpr double kLeast = 0;
      constexpr double kMost = 60;
      add_seconds(*verb, "--seconds", options.rehearse_for, kLeast, kMost,
                  "How long to stay at rest before the thaw; less than --max-freeze");
    }
    verb->callback([&options, &row] {
      options.verb = row.run;
      options.needs = row.needs;
    });
  }
}

void say(const shown_text& text) { std::cerr << "plugin_agent: " << text << "\n"; }

std::string cell(const std::string& text) { return text.empty() ? "-" : text; }

}  // namespace vexo::tools
