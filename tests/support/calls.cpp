#include "calls.h"

#include <gtest/gtest.h>

#include <chrono>

namespace vexo::test {

using namespace scsiplugin;

namespace {

// Of one call. Its deadline is longer than the longest legal wait of the server.
struct call_context : grpc::ClientContext {
  call_context() {
    set_wait_for_ready(true);
    set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(90));
  }
};

}  // namespace

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

bool caller::lun_op(const LunCmd& request) {
  LunCmdResp response;
  const grpc::Status status = lun_op(request, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response.success();
}

bool caller::publish(const PluginCmd& request) {
  PluginCmdResp response;
  const grpc::Status status = publish(request, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response.success();
}

grpc::Status caller::lun_op(const LunCmd& request, LunCmdResp* response) {
  call_context context;
  return stub_->LunOp(&context, request, response);
}

grpc::Status caller::publish(const PluginCmd& request, PluginCmdResp* response) {
  call_context context;
  return stub_->Publish(&context, request, response);
}

void caller::unsubscribe(const std::string& plugin_id) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  google::protobuf::Empty response;
  call_context context;
  const grpc::Status status = stub_->UnSubscribe(&context, request, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
}

PluginClientList caller::list() {
  PluginClientList response;
  call_context context;
  const grpc::Status status = stub_->PluginConnList(&context, google::protobuf::Empty(), &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response;
}

}  // namespace vexo::test
