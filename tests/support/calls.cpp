#include "calls.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "log_sink.h"

namespace vexo::test {

using namespace scsiplugin;

namespace {

// Longer than the longest legal wait of the server.
constexpr std::chrono::seconds kCallDeadline{120};

void set_deadline(grpc::ClientContext* context, std::chrono::milliseconds patience) {
  context->set_wait_for_ready(true);
  context->set_deadline(std::chrono::system_clock::now() + patience);
}

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
  const grpc::Status status = lun_op_status(request, kCallDeadline, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response.success();
}

bool caller::publish(const PluginCmd& request) {
  PluginCmdResp response;
  const grpc::Status status = publish_status(request, kCallDeadline, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response.success();
}

void caller::unsubscribe(const std::string& plugin_id) {
  const grpc::Status status = unsubscribe_status(plugin_id, kPatience);
  EXPECT_TRUE(status.ok()) << status.error_message();
}

PluginClientList caller::list() {
  PluginClientList response;
  const grpc::Status status = list_status(kPatience, &response);
  EXPECT_TRUE(status.ok()) << status.error_message();
  return response;
}

bool caller::is_listed(const std::string& plugin_id) {
  const auto plugins = list();
  return std::any_of(plugins.list().begin(), plugins.list().end(),
                     [&](const auto& plugin) { return plugin.plugin_id() == plugin_id; });
}

grpc::Status caller::lun_op_status(const LunCmd& request, std::chrono::milliseconds patience,
                                   LunCmdResp* response) {
  grpc::ClientContext context;
  set_deadline(&context, patience);
  return stub_->LunOp(&context, request, response);
}

grpc::Status caller::publish_status(const PluginCmd& request, std::chrono::milliseconds patience,
                                    PluginCmdResp* response) {
  grpc::ClientContext context;
  set_deadline(&context, patience);
  return stub_->Publish(&context, request, response);
}

grpc::Status caller::unsubscribe_status(const std::string& plugin_id,
                                        std::chrono::milliseconds patience) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  google::protobuf::Empty response;
  grpc::ClientContext context;
  set_deadline(&context, patience);
  return stub_->UnSubscribe(&context, request, &response);
}

grpc::Status caller::list_status(std::chrono::milliseconds patience, PluginClientList* list) {
  grpc::ClientContext context;
  set_deadline(&context, patience);
  return stub_->PluginConnList(&context, google::protobuf::Empty(), list);
}

}  // namespace vexo::test
