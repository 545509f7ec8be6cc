#ifndef TOOLS_PLUGIN_GUARD_SWEEPER_H_
#define TOOLS_PLUGIN_GUARD_SWEEPER_H_

#include <grpcpp/grpcpp.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "common/endpoint.h"
#include "common/event.h"
#include "plugin_service.grpc.pb.h"

namespace vexo::tools {

// Unsubscribes hosts that have vanished, from construction to destruction: the daemon keeps them
// registered, and its next broadcast to them would never return.
//
// A host that disappears from the list has lost its connection but stays registered, or it has
// unsubscribed by itself; then a second UnSubscribe changes nothing. A host that subscribes again
// between the last look and the UnSubscribe is unsubscribed by mistake, and its stream ends.
//
// Has one connection to one process of the daemon. When that connection ends it forgets the hosts
// it knew: those that a restarted daemon does not list have not vanished, but are subscribing
// again.
class sweeper {
 public:
  // What the sweeper's calls have shown of the daemon. Each call takes the daemon's registry lock.
  struct view {
    pid_t process = 0;  // at the other end of the connection; 0 when it cannot be seen from here
    bool has_asked = false;  // a call has ended, with or without an answer
    // Start of the first call since the last answer; empty when the last call was answered.
    std::optional<std::chrono::steady_clock::time_point> unanswered_since;
    // The error that the daemon answers with, and since when without a break; empty without one.
    std::string error;
    grpc::StatusCode error_code = grpc::StatusCode::OK;
    std::chrono::steady_clock::time_point error_since;
    std::size_t hosts = 0;  // listed at the last look
    unsigned sweeps = 0;    // UnSubscribes sent so far
  };

  // Looks every `interval`. A call is given up after `patience`. While none is answered, each next
  // call may take twice as long, because a call that was given up goes on waiting in the daemon.
  sweeper(endpoint where, std::chrono::milliseconds interval, std::chrono::milliseconds patience);
  ~sweeper();  // cancels a call under way
  sweeper(const sweeper&) = delete;
  sweeper& operator=(const sweeper&) = delete;

  view look() const;

 private:
  using clock = std::chrono::steady_clock;
  using ids = std::set<std::string>;

  void run();
  bool connect();
  void sweep();
  // The hosts that are listed now; empty when there was no answer.
  std::optional<ids> list();
  // Those of known_ that are not listed now; empty when there was no answer.
  std::optional<ids> missing();
  void remove(const std::string& plugin_id, clock::time_point last_look);

  // One call, which the destructor can cancel. False when it did not end with OK.
  template <class Request, class Response>
  bool ask(grpc::Status (scsiplugin::PluginService::Stub::*method)(grpc::ClientContext*,
                                                                   const Request&, Response*),
           const Request& request, Response* response);
  bool begin(grpc::ClientContext* call);
  void end(const grpc::Status& status);

  const endpoint where_;
  const std::chrono::milliseconds interval_;
  const std::chrono::milliseconds patience_;

  // Used by the thread only.
  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;  // empty: not connected
  ids known_;  // listed at some look, and not unsubscribed since
  std::chrono::milliseconds call_patience_;

  event stop_;
  mutable std::mutex mutex_;
  grpc::ClientContext* call_ = nullptr;  // under mutex_: the call under way
  bool stopped_ = false;                 // under mutex_
  view view_;                            // under mutex_
  std::thread thread_;                   // last: it uses all of the above
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_GUARD_SWEEPER_H_
