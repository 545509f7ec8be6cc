#ifndef TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_
#define TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "common/event.h"
#include "common/subscribe_call.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/backoff.h"
#include "plugin_agent/subscription_state.h"
#include "plugin_cmd.pb.h"

namespace vexo::tools {

// The agent's subscription at one appliance, from construction to destruction: when the call ends,
// for whatever reason, it is made again. All of this is logged.
class subscription {
 public:
  // `receive` is called on another thread, one command at a time, and must not block.
  subscription(std::shared_ptr<appliance> where, scsiplugin::PluginClient self,
               subscribe_call::on_command receive);
  // Unsubscribes. Blocks for some seconds when the appliance does not answer. begin_to_leave()
  // begins it without blocking, so that several subscriptions do it at the same time.
  ~subscription();
  void begin_to_leave() { stop_.raise(); }
  const appliance& where() const { return *appliance_; }
  const subscription_state& state() const { return state_; }
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

 private:
  struct attempt {
    std::string text;  // why it has ended
    backoff::ending how = backoff::ending::unreachable;
    std::chrono::milliseconds held{};
  };

  void run();
  // Subscribes, and returns when that is over.
  attempt subscribe_once();
  // Logs how it ended; the same text only once a minute.
  void report(const attempt& ended, std::chrono::milliseconds wait);
  // Logs whether the daemon lists this host. False when it never will. Blocks for up to a minute
  // when the host subscribes again after a loss of the connection.
  bool confirm(subscribe_call& call);
  void leave(subscribe_call& call);
  // Blocks for `time`; true, at once, when the agent leaves.
  bool pause(std::chrono::milliseconds time) const { return wait_for(stop_, stop_, time); }

  const std::shared_ptr<appliance> appliance_;
  const scsiplugin::PluginClient self_;
  const subscribe_call::on_command receive_;
  backoff backoff_;
  subscription_state state_;
  bool comes_back_ = false;  // after a loss of the connection, perhaps with all other hosts
  std::string reported_;
  std::chrono::steady_clock::time_point reported_at_;
  event stop_;
  std::thread thread_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_SUBSCRIPTION_H_
