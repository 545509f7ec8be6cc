#include "command_streams.h"

#include <stdexcept>
#include <string>

#include "subscriber.h"

namespace vexo::fuzz {

using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;

grpc::Status command_streams::Subscribe(grpc::ServerContext* /*context*/,
                                        const PluginClient* request,
                                        grpc::ServerWriter<PluginCmd>* writer) {
  streams_[request->type()].lent.set_value(writer);
  std::promise<void>().get_future().wait();
  return grpc::Status::OK;
}

command_streams::command_streams(std::size_t count) : streams_(count) {
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(this);
  server_ = builder.BuildAndStart();
  if (!server_) throw std::runtime_error("no port on 127.0.0.1 to be had");
  stub_ = scsiplugin::PluginService::NewStub(test::connect("127.0.0.1:" + std::to_string(port)));
  PluginClient request;
  for (auto& opened : streams_) {
    opened.context.set_wait_for_ready(true);
    opened.reader = stub_->Subscribe(&opened.context, request);
    opened.writer = opened.lent.get_future().get();
    request.set_type(static_cast<PluginClient::Type>(request.type() + 1));
  }
}

PluginCmd command_streams::read(std::size_t i) {
  PluginCmd cmd;
  if (!streams_[i].reader->Read(&cmd)) throw std::runtime_error("a stream has ended");
  return cmd;
}

}  // namespace vexo::fuzz
