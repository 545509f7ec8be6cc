#ifndef TESTS_SUPPORT_SUBSCRIBER_H_
#define TESTS_SUPPORT_SUBSCRIBER_H_

#include <grpcpp/grpcpp.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "plugin_service.grpc.pb.h"

namespace vexo::test {

// A channel with a connection of its own.
std::shared_ptr<grpc::Channel> connect(const std::string& target);

// A host plugin's open Subscribe call. Whoever sends an UnSubscribe for it, or replaces it, does so
// only when the server has it waiting: a wake-up before that is lost.
class subscriber {
 public:
  subscriber(const std::shared_ptr<grpc::Channel>& channel, const std::string& plugin_id,
             scsiplugin::PluginClient::Type type = scsiplugin::PluginClient::UNKNOWN);
  ~subscriber();  // cancels the call
  subscriber(const subscriber&) = delete;
  subscriber& operator=(const subscriber&) = delete;

  // The client side of a host that is switched off: the server sees a cancelled call.
  void cancel();

  // The next command pushed, waiting for it; empty when none came.
  std::optional<scsiplugin::PluginCmd> next_cmd();
  std::size_t cmds_waiting();
  // How the stream ended, waiting for it; empty when it is still open.
  std::optional<grpc::Status> end();

 private:
  void read_all();

  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::ClientReader<scsiplugin::PluginCmd>> reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<scsiplugin::PluginCmd> cmds_;
  std::optional<grpc::Status> end_;
  std::thread thread_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_SUBSCRIBER_H_
