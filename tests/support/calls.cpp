#include "calls.h"

#include <gtest/gtest.h>

#include <chrono>

namespace vexo::test {

using namespace scsiplugin;

LunCmd is_lun_support(const std::string& lun, LunType type) {
  LunCmd cmd;
  cmd.mutable_is_lun_support_req()->set_src_lun_id(lun);
  cmd.mutable_is_lun_support_req()->set_type(type);
  return cmd;
}

LunCmd is_mirror_done(const std::string& lun, LunType type) {
  LunCmd cmd;
  cmd.mutable_is_mirror_done_req()->set_src_lun_id(lun);
  cmd.mutable_is_mirror_done_req()->set_type(type);
  return cmd;
}

LunCmd start_mirror(const std::string& lun) {
  LunCmd cmd;
  cmd.mutable_start_mirror_req()->set_src_lun_id(lun);
  return cmd;
}

LunCmd depart_relation(const std::string& lun) {
  LunCmd cmd;
  cmd.mutable_depart_relation_req()->set_src_lun_id(lun);
  return cmd;
}

PluginCmd init_snapshot(const std::string& key) {
  PluginCmd cmd;
  cmd.mutable_init_snapshot_req()->set_src_lun_p80(key);
  return cmd;
}

PluginCmd mirror_done(const std::string& key) {
  PluginCmd cmd;
  cmd.set_task_id(key);
  cmd.mutable_mirror_done_req();
  return cmd;
}

PluginCmd wait_for_depart(const std::string& key) {
  PluginCmd cmd;
  cmd.set_task_id(key);
  cmd.mutable_wait_for_depart_req();
  return cmd;
}

PluginCmd depart_done(const std::string& key) {
  PluginCmd cmd;
  cmd.set_task_id(key);
  cmd.mutable_depart_done_req();
  return cmd;
}

caller::caller(const std::shared_ptr<grpc::Channel>& channel)
    : stub_(PluginService::NewStub(channel)) {}

template <typename Request, typename Response>
Response caller::call(grpc::Status (PluginService::Stub::*method)(grpc::ClientContext*,
                                                                  const Request&, Response*),
                      const Request& request) {
  grpc::ClientContext context;
  context.set_wait_for_ready(true);
  // Longer than the longest legal wait of the server.
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(90));
  Response response;
  const grpc::Status status = (*stub_.*method)(&context, request, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response;
}

LunCmdResp caller::ask(const LunCmd& request) { return call(&PluginService::Stub::LunOp, request); }

PluginCmdResp caller::ask(const PluginCmd& request) {
  return call(&PluginService::Stub::Publish, request);
}

void caller::unsubscribe(const std::string& plugin_id) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  call(&PluginService::Stub::UnSubscribe, request);
}

PluginClientList caller::list() {
  return call(&PluginService::Stub::PluginConnList, google::protobuf::Empty());
}

}  // namespace vexo::test
