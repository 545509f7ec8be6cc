#include "grpc_subscribers.h"

#include <google/protobuf/empty.pb.h>

namespace vexo::bench {

using scsiplugin::LunCmd;
using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;
using scsiplugin::PluginCmd;

namespace {

void ignore(const std::string& /*message*/) {}

std::string host_id(std::size_t number) { return "host-" + std::to_string(number); }

}  // namespace

PluginCmd init_snapshot(const std::string& id) {
  PluginCmd cmd;
  cmd.mutable_init_snapshot_req()->set_src_lun_p80(id);
  return cmd;
}

PluginCmd depart_done(const std::string& id) {
  PluginCmd cmd;
  cmd.set_task_id(id);
  cmd.mutable_depart_done_req();
  return cmd;
}

LunCmd start_mirror(const std::string& id) {
  LunCmd cmd;
  cmd.mutable_start_mirror_req()->set_src_lun_id(id);
  return cmd;
}

grpc_subscribers::grpc_subscribers(const server& at, int hosts) : local_(at.port) {
  for (int i = 0; i < hosts; ++i) {
    PluginClient self;
    self.set_plugin_id(host_id(hosts_.size()));
    hosts_.push_back(std::make_unique<grpc_connection>(at.port));
    hosts_.back()->call(
        "Subscribe", self, [this](const std::string&) { ++delivered; }, [this] { ++ended_; });
  }
  wait_until_listed(hosts, &local_);
}

void wait_until_listed(int hosts, grpc_connection* local) {
  PluginClientList list;
  do {
    list.ParseFromString(local->ask("PluginConnList", google::protobuf::Empty()));
  } while (list.list_size() != hosts);
}

void grpc_subscribers::announce() {
  local_.call("Publish", init_snapshot(lun(0)), ignore, [this] { released = true; });
}

void grpc_subscribers::answer() {
  hosts_[0]->call("LunOp", start_mirror(lun(0)), ignore, [] {});
}

void grpc_subscribers::finish() { local_.ask("Publish", depart_done(lun(0))); }

void grpc_subscribers::leave() {
  for (std::size_t i = 0; i < hosts_.size(); ++i) {
    PluginClient host;
    host.set_plugin_id(host_id(i));
    local_.ask("UnSubscribe", host);
  }
  connection::run_until([this] { return ended_ == static_cast<int>(hosts_.size()); });
}

}  // namespace vexo::bench
