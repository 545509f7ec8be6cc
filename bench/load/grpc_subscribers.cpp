#include "grpc_subscribers.h"

#include "plugin_cmd.pb.h"
#include "requests.h"

namespace vexo::bench {

namespace {
void ignore(const std::string& /*message*/) {}
}  // namespace

grpc_subscribers::grpc_subscribers(const server& at, int hosts) : local_(at.port) {
  for (int i = 0; i < hosts; ++i) {
    hosts_.push_back(std::make_unique<grpc_connection>(at.port));
    hosts_.back()->call(
        "Subscribe", client(host_id(i)), [this](const std::string&) { ++delivered; },
        [this] { ++ended_; });
  }
  wait_until_listed(hosts, &local_);
}

void wait_until_listed(int hosts, grpc_connection* local) {
  scsiplugin::PluginClientList list;
  do {
    list.ParseFromString(local->ask("PluginConnList", {}));
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
  const int hosts = static_cast<int>(hosts_.size());
  for (int i = 0; i < hosts; ++i) local_.ask("UnSubscribe", client(host_id(i)));
  connection::run_until([&] { return ended_ == hosts; });
}

}  // namespace vexo::bench
