#include <memory>
#include <string>

#include "handshake.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::PluginCmd;
using scsiplugin::PluginCmdResp;

constexpr char kKey[] = "The source LUN's page-80h identifier";

struct publish_options {
  handshake about;
  std::int32_t result = 0;
};

struct verdict {
  PluginCmdResp answer;
  std::chrono::duration<double> took;
};

verdict publish(session& with, const std::string& name, const handshake& about,
                const PluginCmd& command, std::chrono::milliseconds timeout,
                const std::string& if_interrupted) {
  const auto start = std::chrono::steady_clock::now();
  auto answer = with.ask<PluginCmd, PluginCmdResp>("Publish " + name + " for " + about.p80,
                                                   &service_stub::Publish, command,
                                                   with.limits(timeout), if_interrupted);
  return {std::move(answer), std::chrono::steady_clock::now() - start};
}

exit_code print_verdict(const session& with, const std::string& name, const handshake& about,
                        const verdict& result, const std::string& if_no) {
  return print_verdict(with, name, about.p80, result.answer, result.answer.success(), if_no);
}

void add_init_snapshot(CLI::App& publish_app, session& with) {
  const auto options = std::make_shared<publish_options>();
  CLI::App* const verb = add_verb(
      publish_app, with, "init-snapshot",
      "Announces a snapshot to every host and waits up to 60 s for one to start the mirror",
      "plugin_ctl publish init-snapshot --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6",
      [&with, options] {
        const handshake& about = options->about;
        const verdict result =
            publish(with, "init_snapshot_req", about, about.init_snapshot(), kHostWaitTimeout,
                    "the daemon goes on waiting for a host, up to 60 s in all; `plugin_ctl publish "
                    "depart-done " +
                        about.p80 + " --result 1` ends the handshake now");
        return print_verdict(with, "init_snapshot_req", about, result,
                             next_after_refused_init(about, result.took));
      });
  add_text(*verb, "--p80", options->about.p80, kKey)->required()->type_name("ID");
  options->about.add_source_options(*verb);
  options->about.add_destination_uuid_option(*verb);
  options->about.add_replica_option(*verb);
  options->about.add_serial_options(*verb);
}

void add_mirror_done(CLI::App& publish_app, session& with) {
  const auto options = std::make_shared<publish_options>();
  CLI::App* const verb = add_verb(
      publish_app, with, "mirror-done", "Reports that the mirror is complete",
      "plugin_ctl publish mirror-done 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, options] {
        const handshake& about = options->about;
        const verdict result = publish(
            with, "mirror_done_req", about, about.mirror_done(), kCallTimeout,
            "ask with `plugin_ctl lun mirror-done --p80 " + about.p80 + "` whether it has arrived");
        return print_verdict(with, "mirror_done_req", about, result,
                             next_after_refused_mirror_done(about));
      });
  add_text(*verb, "ID", options->about.p80, kKey)->required();
  options->about.add_source_options(*verb);
  options->about.add_serial_options(*verb);
}

void add_wait_for_depart(CLI::App& publish_app, session& with) {
  const auto options = std::make_shared<publish_options>();
  CLI::App* const verb = add_verb(
      publish_app, with, "wait-for-depart",
      "Waits up to 60 s until a host is quiet and the mirror may be split",
      "plugin_ctl publish wait-for-depart 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, options] {
        const handshake& about = options->about;
        const verdict result =
            publish(with, "wait_for_depart_req", about, about.wait_for_depart(), kHostWaitTimeout,
                    "wait again, or end the handshake with `plugin_ctl publish depart-done " +
                        about.p80 + " --result 1`");
        return print_verdict(with, "wait_for_depart_req", about, result,
                             next_after_refused_wait(about, result.took));
      });
  add_text(*verb, "ID", options->about.p80, kKey)->required();
  add_text(*verb, "--uuid", options->about.uuid, "The source LUN's UUID")->type_name("UUID");
  options->about.add_destination_uuid_option(*verb);
  options->about.add_serial_options(*verb);
}

void add_depart_done(CLI::App& publish_app, session& with) {
  const auto options = std::make_shared<publish_options>();
  CLI::App* const verb = add_verb(
      publish_app, with, "depart-done",
      "Ends a handshake. The daemon says yes to a LUN without one too",
      "plugin_ctl publish depart-done 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6 --result 0",
      [&with, options] {
        const handshake& about = options->about;
        const verdict result =
            publish(with, "depart_done_req", about, about.depart_done(options->result),
                    kCallTimeout, "repeat it: ending a handshake twice does no harm");
        return print_verdict(with, "depart_done_req", about, result,
                             "this daemon refuses to end handshakes: read its lines in the system "
                             "log");
      });
  add_text(*verb, "ID", options->about.p80, kKey)->required();
  verb->add_option("--result", options->result, "Outcome of the split, 0 for success")
      ->type_name("NUMBER");
  options->about.add_source_options(*verb);
  options->about.add_destination_uuid_option(*verb);
  options->about.add_destination_page_options(*verb);
  options->about.add_serial_options(*verb);
}

}  // namespace

void add_publish_verbs(CLI::App& app, session& with) {
  CLI::App* const publish_app =
      app.add_subcommand("publish", "The local caller's steps of a snapshot, one at a time");
  publish_app->require_subcommand(1);
  publish_app->footer(
      "Example, in this order (`plugin_ctl snapshot` does all of it):\n"
      "  plugin_ctl publish init-snapshot --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6\n"
      "  plugin_ctl publish mirror-done 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6\n"
      "  plugin_ctl publish wait-for-depart 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6\n"
      "  plugin_ctl publish depart-done 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6");
  add_init_snapshot(*publish_app, with);
  add_mirror_done(*publish_app, with);
  add_wait_for_depart(*publish_app, with);
  add_depart_done(*publish_app, with);
}

}  // namespace vexo::tools
