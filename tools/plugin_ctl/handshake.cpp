#include "handshake.h"

#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::PluginCmd;

// A command without its body.
PluginCmd header(const handshake& about) {
  PluginCmd command;
  command.set_cmd_sn(about.cmd_sn);
  command.set_qel_sn(about.qel_sn);
  command.set_task_id(about.p80);
  return command;
}

template <class Request>
void name_source(Request& request, const handshake& about) {
  request.set_src_lun_uuid(about.uuid);
  request.set_src_lun_p80(about.p80);
  request.set_src_lun_p83(about.p83);
}

}  // namespace

void handshake::add_options(CLI::App& verb, const std::vector<std::string>& names) {
  using text_field = std::string handshake::*;
  struct text_option {
    std::string name;
    text_field value;
    const char* type;
    const char* description;
  };
  const char* const key = "The source LUN's page-80h identifier";
  const text_option texts[] = {
      {"ID", &handshake::p80, "TEXT", key},
      {"--p80", &handshake::p80, "ID", key},
      {"--p83", &handshake::p83, "NAA", "The source LUN's page-83h identifier"},
      {"--uuid", &handshake::uuid, "UUID", "The source LUN's UUID"},
      {"--dst-uuid", &handshake::dst_uuid, "UUID", "The destination LUN's UUID"},
      {"--dst-p80", &handshake::dst_p80, "ID", "The destination LUN's page-80h identifier"},
      {"--dst-p83", &handshake::dst_p83, "NAA", "The destination LUN's page-83h identifier"},
      {"--qel-sn", &handshake::qel_sn, "TEXT", "The appliance's serial number"},
  };
  for (const std::string& name : names) {
    if (name == "--replica") {
      verb.add_flag(name, replica, "Tells the hosts that the snapshot is for a replication");
    } else if (name == "--result") {
      verb.add_option(name, result, "Outcome of the split, 0 for success")->type_name("NUMBER");
    } else if (name == "--cmd-sn") {
      verb.add_option(name, cmd_sn, "The command's sequence number")->type_name("NUMBER");
    }
    for (const text_option& each : texts) {
      if (each.name != name) continue;
      add_text(verb, name, this->*each.value, each.description)
          ->type_name(each.type)
          ->required(each.value == &handshake::p80);
    }
  }
}

PluginCmd handshake::init_snapshot() const {
  PluginCmd command = header(*this);
  auto& request = *command.mutable_init_snapshot_req();
  name_source(request, *this);
  request.set_dst_lun_uuid(dst_uuid);
  request.set_is_for_replica(replica);
  return command;
}

PluginCmd handshake::mirror_done() const {
  PluginCmd command = header(*this);
  name_source(*command.mutable_mirror_done_req(), *this);
  return command;
}

PluginCmd handshake::wait_for_depart() const {
  PluginCmd command = header(*this);
  auto& request = *command.mutable_wait_for_depart_req();
  request.set_src_lun_uuid(uuid);
  request.set_dst_lun_uuid(dst_uuid);
  return command;
}

PluginCmd handshake::depart_done() const {
  PluginCmd command = header(*this);
  auto& request = *command.mutable_depart_done_req();
  name_source(request, *this);
  request.set_dst_lun_uuid(dst_uuid);
  request.set_dst_lun_p80(dst_p80);
  request.set_dst_lun_p83(dst_p83);
  request.set_result(result);
  return command;
}

std::string next_after_refused_init(const handshake& about, std::chrono::duration<double> took) {
  if (took <= kRefusalTime) {
    return "either no host plugin is subscribed (see `plugin_ctl list`), or a handshake for this "
           "LUN is under way or was left behind less than 300 s ago (if you know it to be dead, "
           "`plugin_ctl publish depart-done " +
           about.p80 + " --result 1` removes it)";
  }
  return "no host answered with start_mirror in time: see that the plugin of the host that uses "
         "this LUN is subscribed over IPv4 (`plugin_ctl list` shows its address), and its log";
}

std::string next_after_refused_mirror_done(const handshake& about,
                                           std::chrono::duration<double> /*took*/) {
  return "no handshake for this LUN waits for its mirror: `plugin_ctl publish init-snapshot "
         "--p80 " +
         about.p80 + "` begins one, and a host must have answered it with start_mirror";
}

std::string next_after_refused_wait(const handshake& about, std::chrono::duration<double> took) {
  if (took <= kRefusalTime) {
    return "no handshake for this LUN is under way: `plugin_ctl publish init-snapshot --p80 " +
           about.p80 + "` begins one";
  }
  return "no host was at rest in time: see the log of its plugin";
}

}  // namespace vexo::tools
