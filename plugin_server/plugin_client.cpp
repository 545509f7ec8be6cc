#include "plugin_client.h"

#include "log.h"
#include "peer_address.h"
#include "plugin_service.grpc.pb.h"  // how gRPC serialises the messages

namespace vexo::scsiplugin {

namespace {
constexpr char kLogSource[] = "plugin_client";
}

plugin_client::plugin_client(grpc::ServerContext* call_context, const PluginClient* call_request,
                             grpc::ServerWriter<PluginCmd>* call_writer)
    : context(call_context),
      request(call_request),
      peer(peer_ipv4(context->peer())),
      writer(call_writer) {}

void plugin_client::push_cmd(const PluginCmd& cmd) {
  const mutex_lock lock(write_mutex);
  if (peer == kUnknownAddress) {
    PLUGIN_LOG(LOG_INFO, 31, "Unknown ip address, plugin_id=%s", request->plugin_id().c_str());
    return;
  }
  PLUGIN_LOG(LOG_INFO, 37, "push command to plugin_id=%s ip=%s", request->plugin_id().c_str(),
             peer.c_str());
  writer->Write(cmd, grpc::WriteOptions());
}

void plugin_client::release() {
  const mutex_lock lock(write_mutex);
  running = false;
  cond.notify_one();
}

}  // namespace vexo::scsiplugin
