#ifndef TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_
#define TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "common/event.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/backoff.h"
#include "plugin_cmd.pb.h"

namespace vexo::tools {

// The agent's subscription at one appliance, from construction to destruction: however it ends, it
// is renewed, for ever. Its state is said in the log.
class subscription {
 public:
  using on_command = std::function<void(const scsiplugin::PluginCmd&)>;

  // `receive` is called on another thread, one command at a time, and must not block.
  subscription(std::shared_ptr<appliance> where, scsiplugin::PluginClient self, on_command receive);
  // Unsubscribes. Blocks for some seconds when the appliance does not answer; begin_to_leave() has
  // it done beforehand, for all appliances at once.
  ~subscription();
  void begin_to_leave() { stop_.raise(); }
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

 private:
  // One Subscribe call.
  class stream;

  void run();
  // Subscribes, and returns when that is over, with what there is to say about it.
  std::string subscribe_once();
  // Finds itself in the daemon's list, which is the only sign that it takes commands for us. False
  // when the daemon lists others: an UnSubscribe that comes between its registering of a stream and
  // its waiting on it, such as one meant for our previous connection, leaves the stream open and
  // deaf.
  bool confirm(const stream& call);
  void drop(stream& call);
  void leave(stream& call);
  grpc::Status unsubscribe();
  // True when there is no time left: the agent leaves.
  bool pause(std::chrono::milliseconds time) const;

  const std::shared_ptr<appliance> appliance_;
  const scsiplugin::PluginClient self_;
  const on_command receive_;
  backoff backoff_;
  event stop_;
  std::thread thread_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_
