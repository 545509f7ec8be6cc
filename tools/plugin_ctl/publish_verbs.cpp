#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "handshake.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;
using std::chrono::steady_clock;

struct publish_verb {
  const char* name;
  const char* description;
  const char* command;
  std::vector<std::string> options;  // of handshake::add_options
  PluginCmd (handshake::*request)() const;
  std::chrono::milliseconds timeout;
  std::string (*if_interrupted)(const handshake& about);
  std::string (*if_no)(const handshake& about, std::chrono::duration<double> took);
};

const publish_verb kPublishVerbs[] = {
    {"init-snapshot",
     "Announces a snapshot to every host and waits up to 60 s for one to start the mirror",
     "init_snapshot_req",
     {"--p80", "--p83", "--uuid", "--dst-uuid", "--replica", "--cmd-sn", "--qel-sn"},
     &handshake::init_snapshot,
     kHostWaitTimeout,
     [](const handshake& about) {
       return "the daemon goes on waiting for a host, up to 60 s in all; `plugin_ctl publish "
              "depart-done " +
              about.p80 + " --result 1` ends the handshake now";
     },
     next_after_refused_init},
    {"mirror-done",
     "Reports that the mirror is complete",
     "mirror_done_req",
     {"ID", "--p83", "--uuid", "--cmd-sn", "--qel-sn"},
     &handshake::mirror_done,
     kCallTimeout,
     [](const handshake& about) {
       return "ask with `plugin_ctl lun mirror-done --p80 " + about.p80 +
              "` whether it has arrived";
     },
     next_after_refused_mirror_done},
    {"wait-for-depart",
     "Waits up to 60 s until a host is at rest and the mirror may be split",
     "wait_for_depart_req",
     {"ID", "--uuid", "--dst-uuid", "--cmd-sn", "--qel-sn"},
     &handshake::wait_for_depart,
     kHostWaitTimeout,
     [](const handshake& about) {
       return "wait again, or end the handshake with `plugin_ctl publish depart-done " + about.p80 +
              " --result 1`";
     },
     next_after_refused_wait},
    {"depart-done",
     "Ends a handshake. The daemon answers yes for a LUN without a handshake too",
     "depart_done_req",
     {"ID", "--result", "--p83", "--uuid", "--dst-uuid", "--dst-p80", "--dst-p83", "--cmd-sn",
      "--qel-sn"},
     &handshake::depart_done,
     kCallTimeout,
     [](const handshake&) -> std::string {
       return "repeat it: ending a handshake twice does no harm";
     },
     [](const handshake&, std::chrono::duration<double>) -> std::string {
       return "this daemon refuses to end handshakes: read its lines in the system log";
     }},
};

std::string example(const publish_verb& row) {
  const bool is_option = row.options.front() == "--p80";
  return std::string("plugin_ctl publish ") + row.name + (is_option ? " --p80" : "") +
         " 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
}

exit_code publish(session& with, const publish_verb& row, const handshake& about) {
  const auto start = steady_clock::now();
  const auto answer = with.ask<PluginCmd, PluginCmdResp>(
      std::string("Publish ") + row.command + " for " + about.p80, &service_stub::Publish,
      (about.*row.request)(), with.limits(row.timeout), row.if_interrupted(about));
  return print_verdict(with, row.command, about.p80, answer, answer.success(),
                       row.if_no(about, steady_clock::now() - start));
}

}  // namespace

void add_publish_verbs(CLI::App& app, session& with) {
  CLI::App* const publish_app =
      app.add_subcommand("publish", "The local caller's steps of a snapshot, one at a time");
  publish_app->require_subcommand(1);
  std::string examples = "Example, in this order (`plugin_ctl snapshot` does all of it):";
  for (const publish_verb& row : kPublishVerbs) {
    const auto about = std::make_shared<handshake>();
    CLI::App* const verb = add_verb(*publish_app, with, row.name, row.description, example(row),
                                    [&with, &row, about] { return publish(with, row, *about); });
    about->add_options(*verb, row.options);
    examples += "\n  " + example(row);
  }
  publish_app->footer(examples);
}

}  // namespace vexo::tools
