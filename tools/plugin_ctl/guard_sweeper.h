#ifndef TOOLS_PLUGIN_CTL_GUARD_SWEEPER_H_
#define TOOLS_PLUGIN_CTL_GUARD_SWEEPER_H_

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
// registered, and its next broadcast would never return from them.
//
// Who has been listed and is no longer has lost its connection, or has unsubscribed by itself, for
// which a second UnSubscribe changes nothing. A host that subscribes again in the instant between
// the last look and the UnSubscribe is hit, and is told by the end of its stream.
//
// Has one connection to one process of the daemon, and what it knows ends with it: a restarted
// daemon has nobody to be swept, and its hosts are just coming back.
class guard_sweeper {
 public:
  // What the sweeping shows of the daemon. Every call takes the daemon's registry lock.
  struct view {
    pid_t process = 0;  // whom it asks; 0 when that cannot be seen from here
    bool has_asked = false;
    // The daemon owes an answer since then.
    std::optional<std::chrono::steady_clock::time_point> unanswered_since;
    // What is answered instead of a list, and since when without a break; empty otherwise.
    std::string error;
    grpc::StatusCode error_code = grpc::StatusCode::OK;
    std::chrono::steady_clock::time_point error_since;
    std::size_t hosts = 0;  // listed at the last look
    unsigned sweeps = 0;    // UnSubscribes sent so far
  };

  // Looks every `interval`. A call is given up after `patience`, and after twice as long each time
  // while none is answered: what was given up goes on waiting in the daemon.
  guard_sweeper(endpoint where, std::chrono::milliseconds interval,
                std::chrono::milliseconds patience);
  ~guard_sweeper();  // cancels a call under way
  guard_sweeper(const guard_sweeper&) = delete;
  guard_sweeper& operator=(const guard_sweeper&) = delete;

  view look() const;

 private:
  using clock = std::chrono::steady_clock;
  using ids = std::set<std::string>;

  void run();
  bool connect();
  void sweep();
  // Who is listed now; empty when there was no answer.
  std::optional<ids> list();
  // Those of known_ that are not listed now.
  std::optional<ids> missing();
  void remove(const std::string& plugin_id, clock::time_point last_look);

  // One call, in which the destructor may break in.
  template <class Request, class Response>
  bool ask(grpc::Status (scsiplugin::PluginService::Stub::*method)(grpc::ClientContext*,
                                                                   const Request&, Response*),
           const Request& request, Response* response);
  bool begin(grpc::ClientContext* call);
  void end(const grpc::Status& status);

  const endpoint where_;
  const std::chrono::milliseconds interval_;
  const std::chrono::milliseconds patience_;

  // Of the thread.
  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;  // empty: not connected
  ids known_;                                              // listed at some look, and not removed
  std::chrono::milliseconds call_patience_;

  event stop_;
  mutable std::mutex mutex_;
  grpc::ClientContext* call_ = nullptr;  // under mutex_: the call under way
  bool stopped_ = false;                 // under mutex_
  view view_;                            // under mutex_
  std::thread thread_;                   // last: it uses all of the above
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_GUARD_SWEEPER_H_
