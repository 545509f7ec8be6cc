#include "subscriber.h"

#include <gtest/gtest.h>

#include <utility>

namespace vexo::test {

using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;

std::shared_ptr<grpc::Channel> connect(const std::string& target) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

subscriber::subscriber(const std::shared_ptr<grpc::Channel>& channel, const std::string& plugin_id,
                       PluginClient::Type type)
    : stub_(scsiplugin::PluginService::NewStub(channel)) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  request.set_ip("what the plugin says of itself is not what is listed");
  request.set_type(type);
  context_.set_wait_for_ready(true);
  reader_ = stub_->Subscribe(&context_, request);
  thread_ = std::thread(&subscriber::read_all, this);
}

subscriber::~subscriber() {
  context_.TryCancel();
  thread_.join();
}

void subscriber::cancel() { context_.TryCancel(); }

PluginCmd subscriber::next_cmd() {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, std::chrono::system_clock::now() + kPatience,
                      [&] { return !cmds_.empty() || end_.has_value(); });
  if (cmds_.empty()) {
    ADD_FAILURE() << "no command came";
    return {};
  }
  PluginCmd cmd = std::move(cmds_.front());
  cmds_.pop_front();
  return cmd;
}

std::size_t subscriber::cmds_waiting() {
  const std::lock_guard lock(mutex_);
  return cmds_.size();
}

bool subscriber::ends_well() {
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, std::chrono::system_clock::now() + kPatience,
                      [&] { return end_.has_value(); });
  return end_ && end_->ok();
}

void subscriber::read_all() {
  PluginCmd cmd;
  while (reader_->Read(&cmd)) {
    const std::lock_guard lock(mutex_);
    cmds_.push_back(cmd);
    changed_.notify_all();
  }
  const grpc::Status status = reader_->Finish();
  const std::lock_guard lock(mutex_);
  end_ = status;
  changed_.notify_all();
}

}  // namespace vexo::test
