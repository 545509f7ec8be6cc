#include "plugin_service_impl.h"

#include <future>
#include <utility>

#include "log.h"

namespace vexo::scsiplugin {

namespace {
constexpr char kLogSource[] = "plugin_service_impl";
}

std::shared_ptr<PluginServerCtrl> g_plugin_server_ctrl = std::make_shared<PluginServerCtrl>();

grpc::Status PluginServiceImpl::Subscribe(grpc::ServerContext* context, const PluginClient* request,
                                          grpc::ServerWriter<PluginCmd>* writer) {
  // The record borrows this call's objects. Its deleter signals that no thread can reach them.
  std::promise<void> destroyed;
  const std::future<void> gone = destroyed.get_future();
  // The deleter owns the promise. NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
  std::shared_ptr<plugin_client> client(
      new plugin_client(context, request, writer),
      [destroyed = std::move(destroyed)](const plugin_client* record) mutable {
        delete record;
        destroyed.set_value();
      });

  PLUGIN_LOG(LOG_INFO, 32, "Connected: Plugin ID=%s IP=%s", request->plugin_id().c_str(),
             client->peer.c_str());
  g_plugin_server_ctrl->add_client(client);
  {
    // One wait, without a predicate: any wake-up ends the subscription, and a wake-up before the
    // wait is lost.
    mutex_lock lock(client->wait_mutex);
    client->cond.wait(lock);  // NOLINT(bugprone-spuriously-wake-up-functions)
  }
  PLUGIN_LOG(LOG_INFO, 37, "Disconnect: Plugin ID=%s IP=%s", request->plugin_id().c_str(),
             client->peer.c_str());
  client.reset();
  gone.wait();
  return grpc::Status::OK;
}

grpc::Status PluginServiceImpl::UnSubscribe(grpc::ServerContext* /*context*/,
                                            const PluginClient* request,
                                            google::protobuf::Empty* /*response*/) {
  if (const auto client = g_plugin_server_ctrl->get_client(*request)) {
    client->release();
    g_plugin_server_ctrl->del_client(client);
  }
  return grpc::Status::OK;
}

grpc::Status PluginServiceImpl::LunOp(grpc::ServerContext* /*context*/, const LunCmd* request,
                                      LunCmdResp* response) {
  switch (request->cmd_body_case()) {
    case LunCmd::kIsLunSupportReq:
      g_plugin_server_ctrl->handle_cmd_is_lun_support(*request, response);
      return grpc::Status::OK;
    case LunCmd::kIsMirrorDoneReq:
      g_plugin_server_ctrl->handle_cmd_is_mirror_done(*request, response);
      return grpc::Status::OK;
    case LunCmd::kDepartRelationReq:
      g_plugin_server_ctrl->handle_cmd_depart_relation(*request, response);
      return grpc::Status::OK;
    case LunCmd::kStartMirrorReq:
      g_plugin_server_ctrl->handle_cmd_start_mirror(*request, response);
      return grpc::Status::OK;
    default:
      return grpc::Status::CANCELLED;
  }
}

grpc::Status PluginServiceImpl::Publish(grpc::ServerContext* /*context*/, const PluginCmd* request,
                                        PluginCmdResp* response) {
  switch (request->cmd_body_case()) {
    case PluginCmd::kInitSnapshotReq:
      g_plugin_server_ctrl->handle_cmd_init_snapshot(*request, response);
      return grpc::Status::OK;
    case PluginCmd::kMirrorDoneReq:
      g_plugin_server_ctrl->handle_cmd_mirror_done(*request, response);
      return grpc::Status::OK;
    case PluginCmd::kWaitForDepartReq:
      g_plugin_server_ctrl->handle_cmd_wait_for_depart(*request, response);
      return grpc::Status::OK;
    case PluginCmd::kDepartDoneReq:
      g_plugin_server_ctrl->handle_cmd_depart_done(*request, response);
      return grpc::Status::OK;
    default:
      return grpc::Status::CANCELLED;
  }
}

grpc::Status PluginServiceImpl::PluginConnList(grpc::ServerContext* /*context*/,
                                               const google::protobuf::Empty* /*request*/,
                                               PluginClientList* response) {
  g_plugin_server_ctrl->list_clients(response);
  return grpc::Status::OK;
}

}  // namespace vexo::scsiplugin
