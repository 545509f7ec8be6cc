#include "command_streams.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "subscriber.h"

namespace vexo::fuzz {

using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;

grpc::Status command_streams::lender::Subscribe(grpc::ServerContext* /*context*/,
                                                const PluginClient* /*request*/,
                                                grpc::ServerWriter<PluginCmd>* writer) {
  std::unique_lock lock(mutex_);
  lent_ = writer;
  changed_.notify_all();
  changed_.wait(lock, [&] { return ended_; });
  return grpc::Status::OK;
}

grpc::ServerWriter<PluginCmd>* command_streams::lender::borrow() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return lent_ != nullptr; });
  return std::exchange(lent_, nullptr);
}

void command_streams::lender::end() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

command_streams::command_streams(std::size_t count) {
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(&lender_);
  server_ = builder.BuildAndStart();
  if (!server_) throw std::runtime_error("no port on 127.0.0.1 to be had");
  stub_ = scsiplugin::PluginService::NewStub(test::connect("127.0.0.1:" + std::to_string(port)));
  for (std::size_t i = 0; i < count; ++i) {
    auto& added = *streams_.emplace_back(std::make_unique<stream>());
    added.context.set_wait_for_ready(true);
    added.reader = stub_->Subscribe(&added.context, PluginClient());
    added.writer = lender_.borrow();
  }
}

command_streams::~command_streams() {
  lender_.end();
  for (const auto& opened : streams_) {
    PluginCmd rest;
    while (opened->reader->Read(&rest)) continue;
    opened->reader->Finish();
  }
  server_->Shutdown();
}

PluginCmd command_streams::read(std::size_t i) {
  PluginCmd cmd;
  if (!streams_[i]->reader->Read(&cmd)) throw std::runtime_error("a stream has ended");
  return cmd;
}

}  // namespace vexo::fuzz
