#include "calls.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <chrono>

namespace vexo::test {

using namespace scsiplugin;

namespace {

// The message that protobuf's text format describes.
template <typename Message>
Message from_text(const std::string& text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

LunCmd lun_cmd(const std::string& body, const std::string& lun, const std::string& more = "") {
  return from_text<LunCmd>(body + " { src_lun_id: '" + lun + "' " + more + " }");
}

PluginCmd plugin_cmd(const std::string& body, const std::string& key) {
  return from_text<PluginCmd>("task_id: '" + key + "' " + body + " {}");
}

}  // namespace

LunCmd is_lun_support(const std::string& lun, LunType type) {
  return lun_cmd("is_lun_support_req", lun, "type: " + std::to_string(type));
}
LunCmd is_mirror_done(const std::string& lun, LunType type) {
  return lun_cmd("is_mirror_done_req", lun, "type: " + std::to_string(type));
}
LunCmd start_mirror(const std::string& lun) { return lun_cmd("start_mirror_req", lun); }
LunCmd depart_relation(const std::string& lun) { return lun_cmd("depart_relation_req", lun); }
PluginCmd init_snapshot(const std::string& key) {
  return from_text<PluginCmd>("init_snapshot_req { src_lun_p80: '" + key + "' }");
}
PluginCmd mirror_done(const std::string& key) { return plugin_cmd("mirror_done_req", key); }
PluginCmd wait_for_depart(const std::string& key) { return plugin_cmd("wait_for_depart_req", key); }
PluginCmd depart_done(const std::string& key) { return plugin_cmd("depart_done_req", key); }

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
