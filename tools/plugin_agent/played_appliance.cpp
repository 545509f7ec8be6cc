#include "plugin_agent/played_appliance.h"

#include <stdexcept>

namespace vexo::tools {

played_appliance::played_appliance() {
  grpc::ServerBuilder builder;
  builder.RegisterService(this);
  server_ = builder.BuildAndStart();
  if (!server_) throw std::runtime_error("no appliance can be played: gRPC does not start");
}

played_appliance::~played_appliance() { server_->Shutdown(); }

std::shared_ptr<grpc::Channel> played_appliance::channel() {
  return server_->InProcessChannel(grpc::ChannelArguments());
}

played_appliance::moments played_appliance::seen() const {
  const std::lock_guard lock(mutex_);
  return seen_;
}

grpc::Status played_appliance::LunOp(grpc::ServerContext* /*context*/,
                                     const scsiplugin::LunCmd* request,
                                     scsiplugin::LunCmdResp* response) {
  const std::lock_guard lock(mutex_);
  const auto note = [](std::optional<clock::time_point>& moment) {
    if (!moment) moment = clock::now();
  };
  if (request->has_start_mirror_req()) note(seen_.prepared);
  if (request->has_is_mirror_done_req()) note(seen_.mirrored);
  if (request->has_depart_relation_req()) {
    note(seen_.departed);
    departed_.raise();
  }
  response->set_success(true);
  return grpc::Status::OK;
}

}  // namespace vexo::tools
