#ifndef TESTS_SUPPORT_SUBSCRIBER_H_
#define TESTS_SUPPORT_SUBSCRIBER_H_

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "plugin_service.grpc.pb.h"

namespace vexo::test {

// How long a test waits for what is promised before it fails. Generous: machines are shared, and
// the sanitizers are slow.
inline constexpr std::chrono::seconds kPatience{30};

// A channel with a connection of its own.
std::shared_ptr<grpc::Channel> connect(const std::string& target);

// A host plugin's open Subscribe call. Wait until the server has it waiting before you send an
// UnSubscribe for it or replace it: an earlier wake-up is lost.
class subscriber {
 public:
  subscriber(const std::shared_ptr<grpc::Channel>& channel, const std::string& plugin_id,
             scsiplugin::PluginClient::Type type = scsiplugin::PluginClient::UNKNOWN);
  ~subscriber();  // cancels the call
  subscriber(const subscriber&) = delete;
  subscriber& operator=(const subscriber&) = delete;

  // What the server sees when a host is switched off: a cancelled call.
  void cancel();

  // The next command pushed, waiting for it. Fails the test when none came.
  scsiplugin::PluginCmd next_cmd();
  std::size_t cmds_waiting();
  // Whether the stream ended with OK, waiting for it.
  bool ends_well();

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
