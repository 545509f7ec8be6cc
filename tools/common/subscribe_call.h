#ifndef TOOLS_COMMON_SUBSCRIBE_CALL_H_
#define TOOLS_COMMON_SUBSCRIBE_CALL_H_

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "common/channel.h"
#include "common/event.h"

namespace vexo::tools {

// What the daemon's list of plugins says about one of them.
struct listing {
  grpc::Status status;                            // of PluginConnList
  std::optional<scsiplugin::PluginClient> entry;  // empty when it is not listed
};

listing find_listed(service_stub& stub, const std::string& plugin_id,
                    std::chrono::milliseconds timeout);

// One Subscribe call, from construction to destruction. The commands are read by a thread of its
// own; all else is called by one other thread.
class subscribe_call {
 public:
  using on_command = std::function<void(const scsiplugin::PluginCmd&)>;
  using on_end = std::function<void(const grpc::Status&)>;

  // `stub` must live longer. `receive` gets the commands and `end` the status of the call, each on
  // the reading thread; they must neither block nor throw. UnSubscribe and PluginConnList get
  // `timeout` as deadline.
  subscribe_call(service_stub& stub, scsiplugin::PluginClient self,
                 std::chrono::milliseconds timeout, on_command receive, on_end end = {});
  // Cancels the call if it has not ended. Without leave() before, the daemon keeps a subscriber
  // that has vanished, and its next broadcast never returns.
  ~subscribe_call();
  subscribe_call(const subscribe_call&) = delete;
  subscribe_call& operator=(const subscribe_call&) = delete;

  // Raised when the call has ended.
  const event& ended() const { return ended_; }
  // How it ended; blocks until it has.
  const grpc::Status& status();

  // Looks again and again until the daemon lists this subscriber, which is the only sign that it
  // pushes commands to it. Stops looking after `patience`, when the call has ended, and when `stop`
  // is raised. The result of the last look.
  //
  // A subscriber that is not listed by then never will be: an UnSubscribe that the daemon handles
  // between registering a stream and waiting on it removes the registration and leaves the stream
  // open.
  listing confirm(std::chrono::milliseconds patience, const event* stop = nullptr);

  // Unsubscribes, and returns when the call has ended: the status of the last UnSubscribe. When it
  // is OK the daemon has forgotten this subscriber.
  grpc::Status leave();

 private:
  grpc::Status unsubscribe();

  service_stub& stub_;
  const scsiplugin::PluginClient self_;
  const std::chrono::milliseconds timeout_;
  grpc::ClientContext context_;
  grpc::Status status_;  // written by reader_ before it ends
  event ended_;
  std::thread reader_;
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_SUBSCRIBE_CALL_H_
