#include "requests.h"

#include <cstdio>

#include "lun_cmd.pb.h"
#include "plugin_cmd.pb.h"

namespace vexo::bench {

using scsiplugin::LunCmd;
using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;

namespace {

template <typename Body>
std::string plugin_cmd(Body* (PluginCmd::*body)(), const std::string& lun) {
  PluginCmd request;
  request.set_task_id(lun);
  (request.*body)();
  return request.SerializeAsString();
}

template <typename Body>
std::string lun_cmd(Body* (LunCmd::*body)(), const std::string& lun) {
  LunCmd request;
  (request.*body)()->set_type(scsiplugin::LUN_TYPE_80);
  (request.*body)()->set_src_lun_id(lun);
  return request.SerializeAsString();
}

}  // namespace

std::string lun(int number) {
  char id[48];
  std::snprintf(id, sizeof id, "1a2b3c4d-%04d-7a8b-9c0d-e1f2a3b4c5d6", number);
  return id;
}

std::string host_id(int number) { return "host-" + std::to_string(number); }

std::string client(const std::string& plugin_id) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  return request.SerializeAsString();
}

std::string init_snapshot(const std::string& lun) {
  PluginCmd request;
  request.mutable_init_snapshot_req()->set_src_lun_p80(lun);
  return request.SerializeAsString();
}

std::string mirror_done(const std::string& lun) {
  return plugin_cmd(&PluginCmd::mutable_mirror_done_req, lun);
}
std::string wait_for_depart(const std::string& lun) {
  return plugin_cmd(&PluginCmd::mutable_wait_for_depart_req, lun);
}
std::string depart_done(const std::string& lun) {
  return plugin_cmd(&PluginCmd::mutable_depart_done_req, lun);
}

std::string is_lun_support(const std::string& lun) {
  return lun_cmd(&LunCmd::mutable_is_lun_support_req, lun);
}
std::string start_mirror(const std::string& lun) {
  return lun_cmd(&LunCmd::mutable_start_mirror_req, lun);
}
std::string is_mirror_done(const std::string& lun) {
  return lun_cmd(&LunCmd::mutable_is_mirror_done_req, lun);
}
std::string depart_relation(const std::string& lun) {
  return lun_cmd(&LunCmd::mutable_depart_relation_req, lun);
}

}  // namespace vexo::bench
