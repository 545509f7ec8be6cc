#ifndef PLUGIN_SERVER_PLUGIN_SERVICE_IMPL_H_
#define PLUGIN_SERVER_PLUGIN_SERVICE_IMPL_H_

#include <memory>

#include "plugin_server_ctrl.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::scsiplugin {

// The one controller. Made before main and never reassigned while a server runs, so it is read
// without a lock.
extern std::shared_ptr<PluginServerCtrl> g_plugin_server_ctrl;

// Turns each call into one or two calls of the controller. Runs on gRPC's threads, any number at
// once, and holds no state and no lock of its own. The status is OK for every command that has a
// handler, also when the handler's verdict is `success` false, and CANCELLED for any other command.
class PluginServiceImpl : public PluginService::Service {
 public:
  // Blocks, on a thread of its own, until the subscriber is released and its record is gone. A host
  // that only disconnects does not wake it.
  grpc::Status Subscribe(grpc::ServerContext* context, const PluginClient* request,
                         grpc::ServerWriter<PluginCmd>* writer) override;
  grpc::Status UnSubscribe(grpc::ServerContext* context, const PluginClient* request,
                           google::protobuf::Empty* response) override;
  grpc::Status LunOp(grpc::ServerContext* context, const LunCmd* request,
                     LunCmdResp* response) override;
  grpc::Status Publish(grpc::ServerContext* context, const PluginCmd* request,
                       PluginCmdResp* response) override;
  grpc::Status PluginConnList(grpc::ServerContext* context, const google::protobuf::Empty* request,
                              PluginClientList* response) override;
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PLUGIN_SERVICE_IMPL_H_
